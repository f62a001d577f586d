// Writes user defaults the way the program does and exits, so a test can read
// them back in another process: `defaults_writer FILE`. With `--program` it
// opens the program's own settings under $XDG_CONFIG_HOME instead, as the
// tray application does at start, and writes the feed's switch through them.
#include "identity/OrgStore.h"
#include "identity/UserDefaults.h"
#include "notify/NotifyFeedStore.h"

#include <QCoreApplication>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        return 2;
    }
    if (QByteArray(argv[1]) == "--program") {
        auto defaults = std::make_shared<tessel::SettingsDefaults>();
        const tessel::OrgStore store(
            defaults, "https://velmora.ai/meet", [] { return QStringList(); }, "velmora.ai");
        tessel::NotifyDefaultsStore(defaults->settings()).setDesktopNotifications(false);
        return 0;
    }
    auto defaults = std::make_shared<tessel::SettingsDefaults>(QString::fromLocal8Bit(argv[1]));
    defaults->set("one", QStringList{"a"});
    defaults->set("two", QStringList{"a", "b"});
    defaults->set("none", QStringList{});
    defaults->set("off", false);
    defaults->set("count", 42.5);
    tessel::OrgStore store(
        defaults, "https://velmora.ai/meet", [] { return QStringList(); }, "velmora.ai");
    store.select("Acme.Example");
    defaults->sync();
    return 0;
}
