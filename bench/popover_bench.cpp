// How long the popover takes from the tray's click to its first painted
// frame: the rebuild from the models, the layout and the paint, offscreen.
// Prints the median and the slowest of 50 openings.
#include "identity/UserDefaults.h"
#include "ui/PopoverView.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

using namespace tessel;
using namespace tessel::app;

namespace {

class MemoryStore : public SecureStore {
public:
    std::optional<QByteArray> read(const QString&, Unlock) const override { return std::nullopt; }
    void write(const QString&, const QByteArray&) const override {}
    void erase(const QString&) const override {}
    QStringList accounts() const override { return {}; }
};

} // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    QTemporaryDir dir;
    Endpoints endpoints;
    endpoints.defaultOrgHost = QStringLiteral("acme.velmora.test");
    AppModel model(
        AppModel::Services{
            .endpoints = endpoints,
            .defaults = std::make_shared<SettingsDefaults>(dir.filePath("defaults.conf")),
            .secureStore = std::make_shared<MemoryStore>(),
            .httpSession = std::make_shared<HTTPSession>(endpoints.httpOptions()),
            .makeAudio = {},
            .captureClock = {},
            .clock = {},
            .openURL = [](const QUrl&) {},
            .updateEngine = nullptr,
            .infra = nullptr,
        },
        false);
    PopoverController controller;
    PopoverView view(model, controller, {[](const QString&) {}, [] {}, [](const QUrl&) {}});

    std::vector<double> times;
    for (int round = 0; round < 50; ++round) {
        QElapsedTimer clock;
        clock.start();
        view.show();
        QCoreApplication::processEvents();
        (void)view.grab(); // the first frame, painted
        times.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e6);
        view.hide();
        QCoreApplication::processEvents();
    }
    std::sort(times.begin(), times.end());
    std::printf("popover open to first frame: median %.1f ms, slowest %.1f ms (50 openings, "
                "offscreen)\n",
                times[times.size() / 2], times.back());
    return 0;
}
