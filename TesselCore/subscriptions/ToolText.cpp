#include "subscriptions/ToolText.h"

namespace tessel {

bool isLineBreak(QChar c) {
    const char16_t u = c.unicode();
    return (u >= 0x0A && u <= 0x0D) || u == 0x85 || u == 0x2028 || u == 0x2029;
}

QString trimLineBreaks(const QString& text) {
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && isLineBreak(text[begin])) {
        ++begin;
    }
    while (end > begin && isLineBreak(text[end - 1])) {
        --end;
    }
    return text.mid(begin, end - begin);
}

QList<QStringView> splitAtLineBreaks(QStringView text) {
    QList<QStringView> lines;
    qsizetype start = 0;
    for (qsizetype i = 0; i <= text.size(); ++i) {
        if (i == text.size() || isLineBreak(text[i])) {
            lines.append(text.mid(start, i - start));
            start = i + 1;
        }
    }
    return lines;
}

} // namespace tessel
