// Writes a PNG of one X window (by id, as xdotool prints it) or of the whole
// screen: the screenshot script's camera, so that it needs no image tools.
#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>

#include <cstdio>

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: velmora-screengrab OUT.png [WINDOW-ID]\n");
        return 2;
    }
    QScreen* screen = QGuiApplication::primaryScreen();
    const WId window = argc > 2 ? static_cast<WId>(QByteArray(argv[2]).toULongLong()) : 0;
    const QPixmap shot = screen ? screen->grabWindow(window) : QPixmap();
    if (shot.isNull() || !shot.save(QString::fromLocal8Bit(argv[1]))) {
        std::fprintf(stderr, "velmora-screengrab: nothing written to %s\n", argv[1]);
        return 1;
    }
    return 0;
}
