// Subscription figures for a large reading (40 seats, 400 timeline events):
//  1. decoding the tool's JSON, building the presentation, building the window's
//     content, and the three together, as one refresh of an open window does;
//  2. what the reader adds to each refresh besides the tool's own run: the
//     client's run with an in-process answer, saving the last reading, and the
//     alert keys' file with nothing new to deliver;
//  3. the tool's own run, as velmora-faketool answering the same reading.
// Run on demand: build/bin/bench_subscriptions [rounds] [content]
// ("content" stops after the first part, for a profiler).
#include "subscriptions/Meterly.h"
#include "subscriptions/SubscriptionsDashboardContent.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <variant>

using namespace tessel;
using nlohmann::json;

namespace {

const char* const providers[] = {"claude", "codex", "zai", "kimi", "grok", "openrouter"};

std::string stamp(const QDateTime& at) {
    return at.toUTC().toString(Qt::ISODate).toStdString();
}

// A reading as the tool would print it for a heavy user.
QByteArray largeReading(const QDateTime& now) {
    json seats = json::array();
    json alerts = json::array();
    json details = json::array();
    for (int i = 0; i < 40; ++i) {
        const std::string provider = providers[i % 6];
        const std::string id = provider + ":seat" + std::to_string(i);
        json windows = json::array();
        windows.push_back({{"kind", "session"},
                           {"label", "5h"},
                           {"used_pct", (i * 7) % 100},
                           {"resets_at", stamp(now.addSecs(600 + i * 97))},
                           {"resets_in_s", 600 + i * 97}});
        windows.push_back({{"kind", "weekly"},
                           {"label", "7d"},
                           {"remaining_pct", 40.5},
                           {"resets_at", stamp(now.addSecs(90000 + i * 3600))}});
        windows.push_back(
            {{"kind", "credits"}, {"label", "credit"}, {"remaining", 12.5}, {"currency", "USD"}});
        json seat = {{"id", id},
                     {"provider", provider},
                     {"provider_label", provider},
                     {"account", "seat" + std::to_string(i)},
                     {"email", "seat" + std::to_string(i) + "@example.com"},
                     {"plan", "Max"},
                     {"role", "build"},
                     {"live", i == 0},
                     {"windows", windows},
                     {"advice",
                      {{"verb", "spend"},
                       {"reason", "Spend " + id + " until " + stamp(now.addSecs(3600)) +
                                      ". Run: meterly use " + id}}},
                     {"note", ""},
                     {"renews_at", stamp(now.addDays(12))},
                     {"renews_source", "reported"},
                     {"fetched_at", stamp(now.addSecs(-30))},
                     {"links", {{"usage", "https://example.com/usage"}}}};
        if (i % 10 == 3) {
            seat["error"] = {{"code", "auth"}, {"message", "Token expired for " + id}};
        }
        seats.push_back(std::move(seat));
        if (i % 4 == 0) {
            alerts.push_back(id + ": 5h window at 90% — rest for an hour");
            details.push_back({{"seat", id},
                               {"human", "5h window at 90% until " + stamp(now.addSecs(1800))},
                               {"status", "warn"}});
        }
    }
    json timeline = json::array();
    for (int i = 0; i < 400; ++i) {
        const std::string provider = providers[i % 6];
        timeline.push_back({{"seat", provider + ":seat" + std::to_string(i % 40)},
                            {"label", i % 9 == 0 ? "Renewal" : (i % 2 ? "5h" : "7d")},
                            {"resets_at", stamp(now.addSecs(i * 1500))}});
    }
    const json reading = {{"fetched_at", stamp(now.addSecs(-30))},
                          {"seats", seats},
                          {"alerts", alerts},
                          {"alerts_detail", details},
                          {"next", {{"build", "claude"}, {"review", "codex:seat1"}, {"x", "none"}}},
                          {"timeline", timeline},
                          {"summary", "2 seats need attention"}};
    const std::string text = reading.dump();
    return QByteArray(text.data(), static_cast<qsizetype>(text.size()));
}

template <typename T> T run(Task<T> task) {
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
    std::optional<Value> result;
    std::exception_ptr failure;
    bool done = false;
    auto runner = [](Task<T> t, std::optional<Value>& r, std::exception_ptr& f,
                     bool& d) -> Task<void> {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(t);
                r.emplace();
            } else {
                r.emplace(co_await std::move(t));
            }
        } catch (...) {
            f = std::current_exception();
        }
        d = true;
    };
    runner(std::move(task), result, failure, done);
    while (!done) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    if constexpr (!std::is_void_v<T>) {
        return std::move(*result);
    }
}

double threadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Wall time and this thread's CPU time of each round: on a shared machine the
// CPU time is the cost, the wall time what a user would wait.
struct Figures {
    std::vector<double> wall;
    std::vector<double> cpu;

    template <typename F> void measure(F&& work) {
        const double cpu0 = threadSeconds();
        const auto wall0 = std::chrono::steady_clock::now();
        work();
        wall.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - wall0)
                .count());
        cpu.push_back((threadSeconds() - cpu0) * 1e6);
    }
    static double at(std::vector<double> values, double p) {
        std::sort(values.begin(), values.end());
        return values[std::min(values.size() - 1, static_cast<size_t>(p * values.size()))];
    }
    void print(const char* what) const {
        std::printf("  %-44s cpu median %8.1f us p90 %8.1f us | wall median %8.1f us\n", what,
                    at(cpu, 0.5), at(cpu, 0.9), at(wall, 0.5));
    }
};

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 300;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QByteArray text = largeReading(now);
    const QLocale locale(QLocale::English, QLocale::UnitedStates);
    const QTimeZone zone("Europe/Berlin");

    const MeterlySnapshot sample = MeterlySnapshot::parse(QByteArrayView(text));
    std::printf("reading: %lld bytes, %lld seats, %lld timeline events\n",
                static_cast<long long>(text.size()), static_cast<long long>(sample.seats.size()),
                static_cast<long long>(sample.timeline.size()));

    Figures decode, present, dashboard, whole;
    std::size_t sink = 0;
    for (int i = 0; i < rounds; ++i) {
        MeterlySnapshot snapshot;
        decode.measure([&] { snapshot = MeterlySnapshot::parse(QByteArrayView(text)); });
        present.measure(
            [&] { sink += MeterlyPresentation(snapshot, now, locale, zone).seats.size(); });
        dashboard.measure([&] {
            sink += SubscriptionsDashboardContent(snapshot, now, locale, zone).days.size();
        });
        whole.measure([&] {
            // The menu's presentation is the one the window's content builds on.
            const auto s = MeterlySnapshot::parse(QByteArrayView(text));
            const MeterlyPresentation presentation(s, now, locale, zone);
            sink += presentation.notifications.size();
            sink += SubscriptionsDashboardContent(s, presentation, now, locale, zone).cards.size();
        });
    }
    std::printf("one reading, %d rounds:\n", rounds);
    decode.print("decode (MeterlySnapshot::parse)");
    present.print("present (MeterlyPresentation)");
    dashboard.print("dashboard (SubscriptionsDashboardContent)");
    whole.print("decode + present + dashboard");
    if (argc > 2 && std::strcmp(argv[2], "content") == 0) {
        return sink == 0;
    }

    // The reader's own share of a refresh: an answer already in memory.
    const QString output = QString::fromUtf8(text);
    const ToolRunner instant = [output](QStringList, CancellationToken) -> Task<ToolOutput> {
        return [](QString out) -> Task<ToolOutput> { co_return ToolOutput{out, {}, 0}; }(output);
    };
    QTemporaryDir home;
    const MeterlySnapshotStore store(home.path());
    const auto alertsStore =
        MeterlyAlertsStore::create(MeterlyAlertsStore::defaultPath(home.path()));
    QStringList keys = sample.alerts;
    const MeterlyAlertsStore::Deliver deliver = [](QString) -> Task<void> { co_return; };
    run(alertsStore->notifyNew(keys, deliver));

    Figures status, save, alertsFile, reader;
    // The reader's files are written through a temporary file and a rename;
    // the wall time holds the file system's own cost.
    for (int i = 0; i < rounds; ++i) {
        // A fresh client each round: no cache, so the run really happens.
        const auto client = MeterlyClient::create(instant, 60);
        MeterlySnapshot snapshot;
        reader.measure([&] {
            status.measure([&] { snapshot = run(client->status()); });
            save.measure([&] { store.save(snapshot); });
            alertsFile.measure([&] { run(alertsStore->notifyNew(keys, deliver)); });
        });
    }
    std::printf("the reader per refresh, tool answer in memory:\n");
    status.print("MeterlyClient::status (incl. decode)");
    save.print("MeterlySnapshotStore::save");
    alertsFile.print("MeterlyAlertsStore::notifyNew, nothing new");
    reader.print("together");

#ifdef TESSEL_FAKETOOL_PATH
    QTemporaryDir tools;
    const QString meterly = tools.filePath(QStringLiteral("meterly"));
    QFile::link(QStringLiteral(TESSEL_FAKETOOL_PATH), meterly);
    const QString scenario = tools.filePath(QStringLiteral("scenario.json"));
    {
        const json file = {
            {"runs", json::array({{{"steps", json::array({{{"stdout", text.toStdString()}}})}}})}};
        QFile out(scenario);
        out.open(QIODevice::WriteOnly);
        out.write(QByteArray::fromStdString(file.dump()));
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("VELMORA_FAKETOOL_SCENARIO"), scenario);
    environment.insert(QStringLiteral("VELMORA_FAKETOOL_LOG"),
                       tools.filePath(QStringLiteral("log")));
    const ToolRunner real = makeToolRunner(meterly, environment);
    Figures process;
    const int processRounds = std::min(rounds, 50);
    for (int i = 0; i < processRounds; ++i) {
        const auto client = MeterlyClient::create(real, 60);
        process.measure([&] { sink += run(client->status()).seats.size(); });
    }
    std::printf("the tool's own run besides, velmora-faketool as meterly, %d rounds:\n",
                processRounds);
    process.print("MeterlyClient::status with a real process");
#endif
    return sink == 0;
}
