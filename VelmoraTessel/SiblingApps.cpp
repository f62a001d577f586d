#include "SiblingApps.h"

#include "apps/AppLauncher.h"
#include "apps/SessionHandoff.h"
#include "tools/HelperInstaller.h"

#include <QDesktopServices>
#include <QDir>
#include <QFile>

namespace tessel::app {

namespace {

// A sibling application's archive, into `path`; the status of the answer.
Task<int> download(HTTPClient http, QUrl url, QString path, CancellationToken token) {
    HTTPRequest request;
    request.url = url;
    request.timeout = 120;
    const HTTPResponse response = co_await http.send(std::move(request), std::move(token));
    if (response.status / 100 == 2) {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(response.body) != response.body.size()) {
            throw TesselError(QStringLiteral("Could not save the download to ") + path + u'.');
        }
    }
    co_return response.status;
}

} // namespace

AppsModel::Options appOptions(const QString& defaultOrgHost,
                              const std::shared_ptr<const SecureStore>& store,
                              const HTTPClient& http) {
    const auto environment = QProcessEnvironment::systemEnvironment();
    const QString root = SessionHandoff::defaultRoot(
        environment, HelperInstaller::dataDirectory(environment, QDir::homePath()));
    auto writeHandoff = [store, root](const QString& host) {
        return SessionHandoff::write(
            host,
            [store](const QString& orgHost) -> std::optional<QString> {
                try {
                    if (const auto session = SessionKeychain(store).load(orgHost)) {
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
            [http](QUrl url, QString path, CancellationToken token) {
                return download(http, std::move(url), std::move(path), std::move(token));
            }),
        .org = std::nullopt,
        .override = {},
        .dismiss = {},
    };
}

} // namespace tessel::app
