// The boundary with the sibling tool `meterly`, and the two small files that
// outlive a run of the application: the last usable reading, and the alert keys
// already delivered (shared with the tool itself).
#pragma once

#include "async/WaitList.h"
#include "subscriptions/MeterlySnapshot.h"
#include "tools/ToolRunner.h"

#include <QProcessEnvironment>
#include <QString>

#include <memory>
#include <optional>

namespace tessel {

namespace MeterlyCLI {

// The tool's file: the one METERLY_BIN names, else the usual places.
std::optional<QString> resolveBinary(const QProcessEnvironment& environment, const QString& home);
// Runs `binary` with this process's environment as it is now, PATH set to the
// helpers' one.
ToolRunner runner(const QString& binary);
// What the window says when the tool is nowhere to be found; `installDirectory`
// is where the program installs the helpers it carries, none when it carries none.
QString notInstalled(const std::optional<QString>& installDirectory);

} // namespace MeterlyCLI

// Runs `meterly status --json` no oftener than `usageInterval` from the end of
// one run to the start of the next. Callers during a run join it; the outcome,
// a failure as much as a reading, answers every call until the interval has
// passed, so a failing tool runs at most once per interval.
class MeterlyClient : public std::enable_shared_from_this<MeterlyClient> {
public:
    static std::shared_ptr<MeterlyClient> create(ToolRunner runner, double usageInterval,
                                                 NowFunction now = monotonicNow);
    ~MeterlyClient();

    Task<MeterlySnapshot> status();
    static MeterlySnapshot parse(const QString& json) { return MeterlySnapshot::parse(json); }

    struct Run;

private:
    MeterlyClient(ToolRunner runner, double usageInterval, NowFunction now);

    ToolRunner runner_;
    double usageInterval_;
    NowFunction now_;
    std::optional<double> lastCompletion_;
    std::shared_ptr<Run> cached_;
    std::shared_ptr<Run> inFlight_;
};

// The last usable reading on disk, so the window has something to show at the
// next start. A poor reading never replaces a good one.
struct MeterlySnapshotStore {
    QString path;

    // `applicationSupportDirectory` + "/Velmora/last-subs.json".
    explicit MeterlySnapshotStore(const QString& applicationSupportDirectory);

    // Nothing when the file is missing, unreadable, not a reading, or not usable.
    std::optional<MeterlySnapshot> load() const;
    // Does nothing for a reading that is not usable. Throws `TesselError`.
    void save(const MeterlySnapshot& snapshot) const;
};

// The keys of the alerts that stood at the last delivery, one a line, so an
// alert notifies once while it stands and again when it comes back. The file is
// shared with the tool; one `notifyNew` runs at a time.
class MeterlyAlertsStore : public std::enable_shared_from_this<MeterlyAlertsStore> {
public:
    using Deliver = std::function<Task<void>(QString key)>;

    static std::shared_ptr<MeterlyAlertsStore> create(QString path);
    // `home` + "/.meterly/.alerts-last".
    static QString defaultPath(const QString& home);

    const QString& path() const { return path_; }

    // Delivers, one at a time, every key not delivered before, keeps the ones
    // delivered (now or before), and rewrites the file with them even when some
    // deliveries failed. Ends with the last delivery failure, if any.
    Task<void> notifyNew(QStringList lines, Deliver deliver);

private:
    explicit MeterlyAlertsStore(QString path) : path_(std::move(path)) {}

    QString path_;
    bool inFlight_ = false;
    WaitList waiters_;
};

} // namespace tessel
