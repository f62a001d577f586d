// The application model against the local server over HTTPS, for the model's
// and the windows' tests: a keyring in memory, a scripted audio source, time a
// hundred times faster and a wall clock the test sets.
#pragma once

#include "app/AppModel.h"
#include "identity/UserDefaults.h"
#include "support/DevServer.h"
#include "support/Files.h"
#include "support/ScriptedAudio.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <map>

namespace tessel::test {

class MemoryStore : public SecureStore {
public:
    std::optional<QByteArray> read(const QString& account, Unlock) const override {
        const auto found = items.find(account);
        return found == items.end() ? std::nullopt : std::optional(found->second);
    }
    void write(const QString& account, const QByteArray& secret) const override {
        items[account] = secret;
    }
    void erase(const QString& account) const override { items.erase(account); }
    QStringList accounts() const override {
        QStringList out;
        for (const auto& [account, secret] : items) {
            out << account;
        }
        return out;
    }
    mutable std::map<QString, QByteArray> items;
};

struct AppModelRig {
    AppModelRig() {
        const nlohmann::json file{{"default_org_host", "alpha.velmora.test"},
                                  {"org_origin", server.origin()},
                                  {"auth_service_url", server.origin()},
                                  {"ca_file", server.certPath()}};
        endpoints = Endpoints::load(
            writeFile(dir.filePath("endpoints.json"), QByteArray::fromStdString(file.dump())));
    }

    std::unique_ptr<AppModel> makeModel(bool startingServices = true) {
        const CaptureClock fast = fastClock();
        AppModel::Services services{
            .endpoints = endpoints,
            .defaults = std::make_shared<SettingsDefaults>(dir.filePath("defaults.conf")),
            .secureStore = store,
            .httpSession = std::make_shared<HTTPSession>(endpoints.httpOptions()),
            .makeAudio = ScriptedAudio::maker(audio),
            .captureClock = fast,
            .clock = {fast.now, fast.sleep, [this] { return wall; }},
            .openURL = [this](const QUrl& url) { openURL(url); },
            .updateEngine = nullptr,
            .infra = nullptr,
        };
        return std::make_unique<AppModel>(std::move(services), startingServices);
    }

    DevServer server{{.https = true}};
    QTemporaryDir dir;
    Endpoints endpoints;
    std::shared_ptr<MemoryStore> store = std::make_shared<MemoryStore>();
    std::shared_ptr<ScriptedAudioControl> audio = std::make_shared<ScriptedAudioControl>();
    QDateTime wall = QDateTime::fromSecsSinceEpoch(1'900'000'000, Qt::UTC);
    std::function<void(const QUrl&)> openURL = [](const QUrl&) {};
};

} // namespace tessel::test
