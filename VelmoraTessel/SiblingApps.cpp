#include "SiblingApps.h"

#include "apps/AppLauncher.h"
#include "apps/SessionHandoff.h"
#include "apps/ZipAppInstaller.h"
#include "tools/HelperInstaller.h"

#include <QDesktopServices>
#include <QDir>

namespace tessel::app {

AppsModel::Options appOptions(const QString& defaultOrgHost, const SessionKeychain& keychain,
                              const HTTPClient& http) {
    const auto environment = QProcessEnvironment::systemEnvironment();
    const QString root = SessionHandoff::defaultRoot(
        environment, HelperInstaller::dataDirectory(environment, QDir::homePath()));
    auto writeHandoff = [keychain, root](const QString& host) {
        return SessionHandoff::write(
            host,
            [keychain](const QString& orgHost) -> std::optional<QString> {
                try {
                    if (const auto session = keychain.load(orgHost)) {
                        return session->token;
                    }
                } catch (const std::exception&) {
                    // A refusing keyring means no handoff; the application still opens.
                }
                return std::nullopt;
            },
            root);
    };
    return {
        .apps = AppRegistry::apps(defaultOrgHost, writeHandoff),
        .launcher = AppLauncher::system(
            environment, QDir::homePath(), [](QUrl url) { return QDesktopServices::openUrl(url); },
            ZipAppInstaller::downloader(http)),
        .org = std::nullopt,
        .override = {},
        .dismiss = {},
    };
}

} // namespace tessel::app
