// Setting up a conductor and its tunnel for one organisation with
// velmora-conductor-onboard. The user's secrets reach the tool only through
// files that only the user can read, in a directory that lives for one run;
// the tool's progress arrives one JSON line at a time; and nothing it prints
// reaches the window with a secret still in it.
#pragma once

#include "async/Async.h"
#include "infra/InfraStatus.h"

#include <QList>
#include <QObject>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace tessel {

// One line of the tool's progress.
struct ConductorStep {
    // In the order of display.
    enum class Name { preflight, writeConfig, startConductor, writeTunnel, verify };
    enum class State { running, done, failed, skipped };

    Name step = Name::preflight;
    State state = State::running;
    QString detail;

    // Throws DecodingError unless the line is one JSON object with the three keys.
    static ConductorStep decode(const QString& line);
    static QString nameText(Name name);

    bool operator==(const ConductorStep&) const = default;
};

// What the user supplies, in the order of display and of the arguments.
enum class ConductorSecret {
    serviceToken,
    v2Key,
    tunnelToken,
    tunnelIngressKey,
    tunnelID,
    agentID
};
using ConductorSecretValues = std::map<ConductorSecret, QString>;

namespace ConductorSecrets {
inline constexpr std::array<ConductorSecret, 6> all = {
    ConductorSecret::serviceToken,     ConductorSecret::v2Key,    ConductorSecret::tunnelToken,
    ConductorSecret::tunnelIngressKey, ConductorSecret::tunnelID, ConductorSecret::agentID};
QString rawValue(ConductorSecret secret);
QString label(ConductorSecret secret);
// The two ids are not secret to the tool: they go as plain arguments.
bool travelsAsFile(ConductorSecret secret);
} // namespace ConductorSecrets

// The private directory of one run and the tool arguments that name its files.
// Dropping the object removes the directory, ignoring errors.
class ConductorSecretFiles {
public:
    // Makes `root` (0700 where it is created, and refused when a folder on its
    // way is open to other users), a fresh directory below it with a random
    // name (0700) and one file per non-empty secret (0600, created
    // exclusively, never through a link). Throws TesselError; leaves nothing
    // behind when it does.
    ConductorSecretFiles(const ConductorSecretValues& values, const QString& root);
    ~ConductorSecretFiles();
    ConductorSecretFiles(const ConductorSecretFiles&) = delete;
    ConductorSecretFiles& operator=(const ConductorSecretFiles&) = delete;

    const QString& directory() const { return directory_; }
    const QStringList& arguments() const { return arguments_; }
    // Removes the directory and all in it; throws TesselError when it cannot.
    void remove();

private:
    QString directory_;
    QStringList arguments_;
};

// Replaces every secret value in a text by "[redacted]", the longest first so
// that a value containing another leaves no piece visible. A value goes in
// each of its spellings inside JSON text too: the tool's lines are JSON, and a
// line that isn't a step is shown as it came.
class Redactor {
public:
    explicit Redactor(const ConductorSecretValues& values);
    QString operator()(QString text) const;
    bool reveals(const QString& text) const;

private:
    std::vector<std::pair<QString, QRegularExpression>> values_;
};

class ConductorSetupModel : public QObject {
    Q_OBJECT

public:
    using Refresh = std::function<Task<void>()>;

    // `tempRoot` holds the private directories of the runs.
    ConductorSetupModel(InfraTool tool, QString tempRoot, QObject* parent = nullptr);

    const QList<ConductorStep>& steps() const { return steps_; }
    bool isRunning() const { return isRunning_; }
    const std::optional<QString>& failure() const { return failure_; }
    const std::optional<QUrl>& openURL() const { return openURL_; }
    bool succeeded() const { return succeeded_; }
    bool wasDryRun() const { return wasDryRun_; }
    bool isInstalled() const { return runner_.has_value(); }
    const QString& tempRoot() const { return tempRoot_; }

    // Never fails. `orgHost` and `orgURL` name the organisation; `refresh`
    // rereads the infrastructure after a real run that succeeded.
    Task<void> run(QString orgHost, QUrl orgURL, QString slug, qint64 port,
                   ConductorSecretValues secrets, bool dryRun, Refresh refresh);
    // Forgets the last run's result; nothing while a run is under way.
    void reset();

    static bool isValidSlug(const QString& slug);
    // $XDG_RUNTIME_DIR/Velmora/tmp (memory-backed, owner-only), else
    // <dataDirectory>/Velmora/tmp. Only a name: the folders are checked when a
    // run makes its directory.
    static QString defaultTempRoot(const QProcessEnvironment& environment,
                                   const QString& dataDirectory);

    static inline const QString validationFailure =
        QStringLiteral("Enter a lowercase slug and a port between 1 and 65535.");
    static inline const QString noVerificationFailure =
        QStringLiteral("Setup ended without a completed verification step.");

signals:
    void changed();

private:
    void receiveLine(const QString& line, const Redactor& redact);
    void receive(ConductorStep step);
    bool stepsSucceeded() const;

    QString notInstalled_;
    std::optional<StreamingToolRunner> runner_;
    QString tempRoot_;
    QList<ConductorStep> steps_;
    bool isRunning_ = false;
    std::optional<QString> failure_;
    std::optional<QUrl> openURL_;
    bool succeeded_ = false;
    bool wasDryRun_ = false;
};

} // namespace tessel
