// Lines of a sibling tool's output. A line break is any of LF, VT, FF, CR, NEL,
// LS and PS, as the tools' own platform counts them.
#pragma once

#include <QString>
#include <QStringList>

namespace tessel {

bool isLineBreak(QChar c);
// Line breaks (not other white space) trimmed from both ends.
QString trimLineBreaks(const QString& text);
// Split at every line break; "a\r\nb" gives "a", "", "b", and the empty parts stay.
QList<QStringView> splitAtLineBreaks(QStringView text);

} // namespace tessel
