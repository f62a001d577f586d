#include "ui/Symbols.h"

#include <QHash>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>

namespace tessel::app {

namespace {

const QHash<QString, QStringList>& table() {
    static const QHash<QString, QStringList> symbols{
        {QStringLiteral("arrow.clockwise"), {QStringLiteral("view-refresh")}},
        {QStringLiteral("person.crop.circle"),
         {QStringLiteral("avatar-default"), QStringLiteral("user-identity")}},
        {QStringLiteral("power"),
         {QStringLiteral("system-shutdown"), QStringLiteral("application-exit")}},
        {QStringLiteral("building.2"), {QStringLiteral("network-workgroup")}},
        {QStringLiteral("checkmark"), {QStringLiteral("object-select")}},
        {QStringLiteral("record.circle"), {QStringLiteral("media-record")}},
        {QStringLiteral("note.text"),
         {QStringLiteral("text-x-generic"), QStringLiteral("document-open")}},
        {QStringLiteral("stop.circle"), {QStringLiteral("media-playback-stop")}},
        {QStringLiteral("arrow.left"), {QStringLiteral("go-previous")}},
        {QStringLiteral("tray"), {QStringLiteral("mail-read"), QStringLiteral("mail-inbox")}},
        {QStringLiteral("folder"), {QStringLiteral("folder")}},
        {QStringLiteral("waveform.and.mic"),
         {QStringLiteral("audio-input-microphone"), QStringLiteral("microphone-sensitivity-high")}},
        {QStringLiteral("creditcard"), {QStringLiteral("view-statistics")}},
        {QStringLiteral("arrow.up.forward.app"), {QStringLiteral("window-new")}},
        {QStringLiteral("safari"),
         {QStringLiteral("web-browser"), QStringLiteral("internet-web-browser")}},
        {QStringLiteral("macwindow"), {QStringLiteral("preferences-desktop")}},
        {QStringLiteral("radio"), {QStringLiteral("audio-x-generic")}},
        {QStringLiteral("video"), {QStringLiteral("camera-web"), QStringLiteral("camera-video")}},
        {QStringLiteral("circle"), {}},
    };
    return symbols;
}

// A simple drawing per symbol; anything else is a ring.
QPixmap drawn(const QString& symbol, const QColor& ink, qreal scale) {
    QPixmap pixmap(QSize(22, 22) * scale);
    pixmap.setDevicePixelRatio(scale);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(ink, 1.6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    const QRectF ring(3, 3, 16, 16);
    if (symbol == QStringLiteral("record.circle")) {
        p.drawEllipse(ring);
        p.setBrush(ink);
        p.drawEllipse(QPointF(11, 11), 4, 4);
    } else if (symbol == QStringLiteral("stop.circle")) {
        p.drawEllipse(ring);
        p.setBrush(ink);
        p.drawRect(QRectF(8, 8, 6, 6));
    } else if (symbol == QStringLiteral("arrow.clockwise")) {
        p.drawArc(ring.adjusted(1, 1, -1, -1), 100 * 16, 300 * 16);
        p.drawLine(QPointF(11, 4), QPointF(14, 2));
        p.drawLine(QPointF(11, 4), QPointF(14, 7));
    } else if (symbol == QStringLiteral("power")) {
        p.drawArc(ring.adjusted(1, 1, -1, -1), 120 * 16, 300 * 16);
        p.drawLine(QPointF(11, 3), QPointF(11, 11));
    } else if (symbol == QStringLiteral("person.crop.circle")) {
        p.drawEllipse(ring);
        p.drawEllipse(QPointF(11, 9), 3, 3);
        p.drawArc(QRectF(6, 13, 10, 8), 0, 180 * 16);
    } else if (symbol == QStringLiteral("checkmark")) {
        p.drawPolyline(QPolygonF({QPointF(5, 11), QPointF(9, 15), QPointF(17, 6)}));
    } else if (symbol == QStringLiteral("arrow.left")) {
        p.drawLine(QPointF(5, 11), QPointF(17, 11));
        p.drawPolyline(QPolygonF({QPointF(10, 6), QPointF(5, 11), QPointF(10, 16)}));
    } else if (symbol == QStringLiteral("note.text") || symbol == QStringLiteral("folder") ||
               symbol == QStringLiteral("tray")) {
        p.drawRoundedRect(QRectF(5, 3, 12, 16), 2, 2);
        for (const qreal y : {8.0, 11.0, 14.0}) {
            p.drawLine(QPointF(8, y), QPointF(14, y));
        }
    } else if (symbol == QStringLiteral("building.2")) {
        p.drawRect(QRectF(4, 6, 8, 13));
        p.drawRect(QRectF(12, 10, 6, 9));
    } else if (symbol == QStringLiteral("waveform.and.mic")) {
        p.drawRoundedRect(QRectF(8, 3, 6, 11), 3, 3);
        p.drawArc(QRectF(5, 7, 12, 10), 180 * 16, 180 * 16);
        p.drawLine(QPointF(11, 17), QPointF(11, 20));
    } else {
        p.drawEllipse(ring);
    }
    return pixmap;
}

} // namespace

QStringList themeNames(const QString& symbol) {
    return table().value(symbol);
}

QIcon symbolIcon(const QString& symbol, const QPalette& palette) {
    // Each icon is made once per theme and ink and then shared. The popover
    // is rebuilt on every change of a call's status; fresh icons each time
    // filled Qt's pixmap cache with renderings of icons long gone (megabytes
    // held after the call) and asked the theme's folders again each time.
    const QColor ink = palette.color(QPalette::WindowText);
    const QString key = symbol + QLatin1Char('\n') + QIcon::themeName() + QLatin1Char('\n') +
                        QString::number(ink.rgba());
    static QHash<QString, QIcon> made;
    if (const auto found = made.constFind(key); found != made.constEnd()) {
        return *found;
    }
    QIcon icon;
    for (const QString& name : themeNames(symbol)) {
        if (QIcon::hasThemeIcon(name)) {
            icon = QIcon::fromTheme(name);
            break;
        }
    }
    if (icon.isNull()) {
        // Unknown symbols show as a ring, like every symbol the theme lacks.
        const QString known = table().contains(symbol) ? symbol : QStringLiteral("circle");
        for (const qreal scale : {1.0, 2.0}) {
            icon.addPixmap(drawn(known, ink, scale));
        }
    }
    made.insert(key, icon);
    return icon;
}

QToolButton* iconButton(const QString& symbol, const QString& help, const QString& label,
                        QWidget* parent, std::function<void()> action) {
    auto* b = new QToolButton(parent);
    b->setIcon(symbolIcon(symbol, parent ? parent->palette() : QPalette()));
    b->setIconSize(QSize(22, 22));
    b->setAutoRaise(true);
    b->setFocusPolicy(Qt::StrongFocus);
    setWords(b, help, label);
    if (action) {
        QObject::connect(b, &QToolButton::clicked, b, [action = std::move(action)] { action(); });
    }
    return b;
}

void setWords(QToolButton* button, const QString& help, const QString& label) {
    if (button->toolTip() != help) {
        button->setToolTip(help);
        button->setAccessibleName(help);
    }
    const QString text = QString(label).replace(QLatin1Char('&'), QStringLiteral("&&"));
    if (button->text() != text) {
        button->setText(text);
        // The name is the help; what the button shows now is said after it.
        button->setAccessibleDescription(label != help ? label : QString());
    }
    button->setToolButtonStyle(label.isEmpty() ? Qt::ToolButtonIconOnly
                                               : Qt::ToolButtonTextBesideIcon);
}

} // namespace tessel::app
