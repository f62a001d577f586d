// The small pictures of the popover and its windows. Each is named by what it
// means ("stop.circle", "note.text"...); one table turns the name into a
// freedesktop icon name, and a picture drawn here in the palette's text
// colour stands in when the icon theme has none, so the popover looks right
// on any theme, light or dark.
#pragma once

#include <QIcon>
#include <QString>
#include <QToolButton>

#include <functional>

namespace tessel::app {

// The freedesktop names tried in order for `symbol`; empty for an unknown one.
QStringList themeNames(const QString& symbol);

// The theme's icon, or the drawn one ("circle" for a symbol nobody knows).
QIcon symbolIcon(const QString& symbol, const QPalette& palette);

// A flat button showing `symbol` in 22 by 22 and, when given, `label` beside
// it. `help` is its tool tip and its accessible name.
QToolButton* iconButton(const QString& symbol, const QString& help, const QString& label,
                        QWidget* parent, std::function<void()> action);
// New words for a button made by iconButton, in place: its focus and any
// press stay.
void setWords(QToolButton* button, const QString& help, const QString& label);

} // namespace tessel::app
