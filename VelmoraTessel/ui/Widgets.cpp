#include "ui/Widgets.h"

namespace tessel::app {

QLabel* textLine(const QString& text, QWidget* parent, bool secondary) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    if (secondary) {
        label->setStyleSheet(QStringLiteral("color: palette(placeholder-text);"));
    }
    return label;
}

QPushButton* button(const QString& text, QWidget* parent, std::function<void()> action) {
    // An ampersand is the platform's mnemonic marker; the text means it literally.
    auto* b =
        new QPushButton(QString(text).replace(QLatin1Char('&'), QStringLiteral("&&")), parent);
    QObject::connect(b, &QPushButton::clicked, parent, [action = std::move(action)] { action(); });
    b->setAccessibleName(text);
    return b;
}

QFrame* divider(QWidget* parent) {
    auto* line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

} // namespace tessel::app
