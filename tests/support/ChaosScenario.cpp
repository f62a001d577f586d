#include "support/ChaosScenario.h"

#include "capture/CaptureSession.h"
#include "support/DevServer.h"
#include "support/ScriptedAudio.h"
#include "support/Wait.h"

#include <QDir>
#include <QFile>

#include <algorithm>

#include <random>

namespace tessel::test {

namespace {

// Segment n of a track, as the scripted source cuts it.
QByteArray segmentBytes(int n) {
    return adtsFrames(4, 90, static_cast<char>(n & 0x7F));
}

void countStored(ChaosOutcome& outcome, const QString& folder, int emitted) {
    const QDir dir(folder);
    const QStringList files = dir.entryList({"*.aac"}, QDir::Files, QDir::Name);
    std::vector<QByteArray> stored;
    for (const QString& name : files) {
        QFile file(dir.filePath(name));
        stored.push_back(file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray());
    }
    for (int n = 0; n < emitted; ++n) {
        const auto copies = std::count(stored.begin(), stored.end(), segmentBytes(n));
        outcome.stored += copies > 0 ? 1 : 0;
        outcome.lost += copies == 0 ? 1 : 0;
        outcome.duplicated += std::max<int>(0, static_cast<int>(copies) - 1);
        const QString own = QStringLiteral("%1.aac").arg(n, 6, 10, QLatin1Char('0'));
        if (copies > 0 && (n >= files.size() || files[n] != own || stored[n] != segmentBytes(n))) {
            ++outcome.misplaced;
        }
    }
}

} // namespace

ChaosOutcome runChaos(unsigned seed, int segmentsPerChannel) {
    DevServer server;
    auto token = std::make_shared<QString>(QStringLiteral("vses_chaos_1"));
    auto audio = std::make_shared<ScriptedAudioControl>();
    // Short limits so a stalled answer ends the request quickly, yet long enough
    // for a sanitizer build's first request.
    HTTPSession::Options limits;
    limits.inactivitySeconds = 1.5;
    limits.totalSeconds = 5.0;
    HTTPClient http(std::make_shared<HTTPSession>(limits));
    MeetAPI api(
        QUrl(QString::fromStdString(server.meetBase())),
        [token] { return std::optional<QString>(*token); }, http);
    CaptureSession session(std::move(api), ScriptedAudio::maker(audio), fastClock());
    ChaosOutcome outcome;
    const auto signInAgain = [&] {
        *token = QStringLiteral("vses_chaos_%1").arg(++outcome.signIns + 1);
        return failureOf(session.resumeAfterSignIn());
    };

    wait(session.start("Chaos", "Server", "", true));
    std::mt19937 random(seed);
    const char* routes[] = {"presign", "put", "complete"};
    for (int i = 0; i < segmentsPerChannel; ++i) {
        const std::string route = routes[random() % 3];
        switch (random() % 5) {
        case 0:
            server.fail(route, 1 + random() % 3, 500 + static_cast<int>(random() % 4),
                        R"({"error":{"code":"unavailable","message":"try later"}})");
            break;
        case 1:
            server.drop(route, 1); // the server acts, the answer is lost
            break;
        case 2:
            server.delay(route, 1, 2500); // past the client's 1.5 s limit
            break;
        default:
            break;
        }
        if (i == segmentsPerChannel / 2) {
            server.revoke(token->toStdString());
        }
        audio->emitSegment(AudioChannel::local);
        audio->emitSegment(AudioChannel::remote);
        wait(sleepFor(0.02));
        if (session.state() == CaptureState::needsSignIn) {
            signInAgain();
        }
    }
    // On a slow machine the queue may still be backing off when the last segment
    // is cut; the revoked token is found by the next attempt.
    for (const double deadline = monotonicNow() + 60;
         outcome.signIns == 0 && session.state() != CaptureState::needsSignIn &&
         monotonicNow() < deadline;) {
        wait(sleepFor(0.01));
    }
    // Stop may fail while faults are still queued; a person presses it again.
    for (int press = 0; press < 20 && session.state() != CaptureState::finished; ++press) {
        if (session.state() == CaptureState::needsSignIn) {
            signInAgain();
        } else {
            failureOf(session.stop());
        }
    }
    outcome.finished = session.state() == CaptureState::finished;
    outcome.error = session.error().value_or(QString());

    outcome.emitted = 2 * segmentsPerChannel;
    for (const char* track : {"audio_local", "audio_remote"}) {
        countStored(outcome,
                    QString::fromStdString(server.dataDir()) + "/" + *session.meetingID() + "/" +
                        track,
                    segmentsPerChannel);
    }
    // Held by name: a loop over a part of a temporary would read freed memory.
    const auto state = server.state();
    for (const auto& call : state["meetings"]) {
        bool closed = call.value("status", "") == "ended";
        for (const auto& part : call["parts"]) {
            closed = closed && part.value("state", "") == "stopped";
        }
        ++outcome.calls;
        outcome.callsClosed += closed ? 1 : 0;
    }
    for (const auto& entry : server.requestLog()) {
        const auto& status = entry["status"];
        if ((status.is_number() && status.get<int>() >= 500) ||
            (status.is_string() && status.get<std::string>() == "dropped") ||
            entry.value("delayed", false)) {
            ++outcome.faults;
        }
    }
    return outcome;
}

} // namespace tessel::test
