// Small pieces the popover and the windows share.
#pragma once

#include <QFrame>
#include <QLabel>
#include <QPushButton>
#include <QWidget>

#include <functional>

namespace tessel::app {

// A wrapping label; `secondary` for the quieter caption lines.
QLabel* textLine(const QString& text, QWidget* parent, bool secondary = false);
QPushButton* button(const QString& text, QWidget* parent, std::function<void()> action);
// A thin horizontal line between blocks.
QFrame* divider(QWidget* parent);

// Keeps a window of fixed width at least as tall as its content at that width,
// word-wrapped lines included, so no window manager can squash its rows.
void keepContentHeight(QWidget* window);

// `ink`, or when it is too faint on `background` (under 4.5:1, as a dark
// palette's highlight is on its window) mixed towards black or white until it
// reads.
QColor readableOn(const QColor& ink, const QColor& background);

// The widgets under `root` that Tab reaches, in reading order: row by row from
// the top, left to right within a row. Qt's own chain is creation order, which
// parts rebuilt on their own time scramble.
QList<QWidget*> rowOrder(QWidget* root);
// Moves the focus along `rowOrder(root)`, wrapping around; false when nothing
// there takes focus.
bool focusAlongRows(QWidget* root, bool next);

} // namespace tessel::app
