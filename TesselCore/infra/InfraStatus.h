// What velmora-conductor-onboard reports about the conductor, the tunnel and
// the agent supervisor on this machine, and how the tool is found and run.
// The tool is another program: everything this system knows about those
// services comes from its answers.
#pragma once

#include "tools/ToolRunner.h"

#include <QByteArray>
#include <QList>
#include <QProcessEnvironment>
#include <QString>
#include <QUrl>

#include <functional>
#include <optional>

namespace tessel {

struct InfraStatus {
    // Closed: a text outside these fails the whole report.
    enum class State { running, unhealthy, stopped, missing };
    enum class Mode { supervisor, isolated };

    struct Supervisor {
        bool loaded = false;
        QString label;
        std::optional<QString> detail;

        // Why it is not loaded, in the tool's words.
        QString humanLine() const;
        bool operator==(const Supervisor&) const = default;
    };

    struct Conductor {
        State state = State::missing;
        std::optional<QString> healthURL;
        std::optional<QString> openURL;
        std::optional<QString> db;
        std::optional<QString> config;
        bool operator==(const Conductor&) const = default;
    };

    struct Tunnel {
        State state = State::missing;
        std::optional<QString> label;
        std::optional<QString> plist;
        std::optional<QString> log;
        bool operator==(const Tunnel&) const = default;
    };

    struct Organisation {
        QString slug;
        QString orgURL;
        Mode mode = Mode::supervisor;
        std::optional<qint64> port;
        Conductor conductor;
        Tunnel tunnel;

        bool readOnly() const { return mode == Mode::isolated; }
        bool canRestart() const {
            return mode != Mode::isolated && conductor.state != State::missing;
        }
        bool canSetup() const {
            return mode != Mode::isolated && conductor.state == State::missing;
        }
        QString managementHelp() const;
        // The conductor's web address, when it is a safe one to open.
        std::optional<QUrl> openURL() const;
        bool operator==(const Organisation&) const = default;
    };

    Supervisor supervisor;
    qint64 nextPort = 0;
    QList<Organisation> orgs;

    // Throws DecodingError naming the first field that is missing or wrong.
    static InfraStatus decode(const QByteArray& json);

    // The first entry whose org_url has this host (compared in lower case).
    std::optional<Organisation> organisation(const QString& host) const;

    bool operator==(const InfraStatus&) const = default;
};

QString stateText(InfraStatus::State state);

// How the models reach the tool: `resolve` finds it afresh (none when it is not
// installed) and binds a runner to it; `notInstalled` is the line shown then.
struct InfraTool {
    std::function<std::optional<StreamingToolRunner>()> resolve;
    QString notInstalled;
};

namespace InfraCLI {

inline const QString toolName = QStringLiteral("velmora-conductor-onboard");
inline const QString overrideVariable = QStringLiteral("VCO_BIN");

// The line shown when the tool cannot be found; `installDirectory` is where
// the program installs the helpers it carries, none when it carries none.
QString notInstalled(const std::optional<QString>& installDirectory);

// Where the tool is: the file VCO_BIN names, else the helper lookup.
std::optional<QString> resolveBinary(const QProcessEnvironment& environment, const QString& home);
// A runner bound to that file, run with the helpers' PATH made from `environment`.
StreamingToolRunner runner(const QString& binary, const QProcessEnvironment& environment,
                           const QString& home);
// How the models find the tool: with this process's environment and the
// user's home, read again at each lookup. `installDirectory` as for
// `notInstalled`.
InfraTool tool(const std::optional<QString>& installDirectory);
InfraTool tool(const QProcessEnvironment& environment, const QString& home,
               const std::optional<QString>& installDirectory);

// A web address fit to open: scheme exactly "http" or "https" (checked on the
// raw text, since QUrl lower-cases it), a host, no user name or password.
std::optional<QUrl> webURL(const QString& text);

} // namespace InfraCLI

} // namespace tessel
