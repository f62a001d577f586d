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

} // namespace tessel::app
