#include "subscriptions/Meterly.h"

#include "subscriptions/ToolText.h"
#include "tools/HelperInstaller.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSet>
#include <QStringDecoder>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

const QStringList meterlyStatusArguments{u"status"_s, u"--json"_s};

constexpr auto privateFile = QFileDevice::ReadOwner | QFileDevice::WriteOwner;

// Creates `directory` and the folders above it that are missing, each 0700; a
// folder that exists is left as it is.
void createPrivateDirectories(const QString& directory) {
    const QString absolute = QDir::cleanPath(QFileInfo(directory).absoluteFilePath());
    QStringList missing;
    QString current = absolute;
    while (!current.isEmpty() && !QFileInfo(current).isDir()) {
        missing.prepend(current);
        const QString parent = QFileInfo(current).path();
        if (parent == current) {
            break;
        }
        current = parent;
    }
    for (const auto& folder : missing) {
        if (::mkdir(QFile::encodeName(folder).constData(), 0700) != 0 && errno != EEXIST) {
            throw TesselError(u"Could not create the folder %1: %2"_s.arg(
                folder, QString::fromLocal8Bit(std::strerror(errno))));
        }
    }
}

// Written beside the target and renamed over it, so a reader never sees half a
// file; the file is 0600 from its first byte.
void writePrivateFile(const QString& path, const QByteArray& bytes) {
    createPrivateDirectories(QFileInfo(path).path());
    QSaveFile file(path);
    const auto fail = [&](const QString& reason) {
        throw TesselError(u"Could not write %1: %2"_s.arg(path, reason));
    };
    if (!file.open(QIODevice::WriteOnly)) {
        fail(file.errorString());
    }
    file.setPermissions(privateFile);
    if (file.write(bytes) != bytes.size()) {
        fail(file.errorString());
    }
    if (!file.commit()) {
        fail(file.errorString());
    }
    if (!QFile::setPermissions(path, privateFile)) {
        fail(u"its permissions could not be set"_s);
    }
}

} // namespace

std::optional<QString> MeterlyCLI::resolveBinary(const QProcessEnvironment& environment,
                                                 const QString& home) {
    return HelperInstaller::resolve(u"meterly"_s, u"METERLY_BIN"_s, environment, home);
}

ToolRunner MeterlyCLI::runner(const QString& binary) {
    return makeToolRunner(binary,
                          HelperInstaller::environment(QProcessEnvironment::systemEnvironment()));
}

QString MeterlyCLI::notInstalled(const std::optional<QString>& installDirectory) {
    return HelperInstaller::notInstalled(u"meterly"_s, installDirectory,
                                         u"to see the usage of your subscriptions"_s);
}

struct MeterlyClient::Run {
    std::shared_ptr<BackgroundTask> task;
    std::optional<MeterlySnapshot> reading;
    std::exception_ptr failure;

    static Task<void> execute(std::shared_ptr<Run> run, ToolRunner runner,
                              std::weak_ptr<MeterlyClient> owner, CancellationToken token) {
        try {
            token.check();
            const ToolOutput output = co_await runner(meterlyStatusArguments, token);
            if (output.exitCode != 0) {
                throw VantorAccountsError::from(output);
            }
            run->reading = MeterlySnapshot::parse(output.standardOutput);
        } catch (...) {
            run->failure = std::current_exception();
        }
        if (const auto client = owner.lock()) {
            client->cached_ = run;
            client->lastCompletion_ = client->now_();
            client->inFlight_.reset();
        }
    }
};

std::shared_ptr<MeterlyClient> MeterlyClient::create(ToolRunner runner, double usageInterval,
                                                     NowFunction now) {
    return std::shared_ptr<MeterlyClient>(
        new MeterlyClient(std::move(runner), usageInterval, std::move(now)));
}

MeterlyClient::MeterlyClient(ToolRunner runner, double usageInterval, NowFunction now)
    : runner_(std::move(runner)), usageInterval_(usageInterval), now_(std::move(now)) {}

MeterlyClient::~MeterlyClient() {
    // Nobody waits for it any more (callers keep the client alive): end the process.
    if (inFlight_ && inFlight_->task) {
        inFlight_->task->cancel();
    }
}

Task<MeterlySnapshot> MeterlyClient::status() {
    auto self = shared_from_this();
    std::shared_ptr<Run> run = inFlight_;
    if (!run && cached_ && lastCompletion_ && now_() < *lastCompletion_ + usageInterval_) {
        run = cached_;
    }
    if (!run) {
        run = std::make_shared<Run>();
        inFlight_ = run;
        const std::weak_ptr<MeterlyClient> owner = self;
        run->task = BackgroundTask::start(
            [run, runner = runner_, owner](CancellationToken token) -> Task<void> {
                return Run::execute(run, runner, owner, std::move(token));
            });
    }
    if (!run->task->isFinished()) {
        co_await run->task->finished();
    }
    if (run->failure) {
        std::rethrow_exception(run->failure);
    }
    // A copy: QCoro's `co_return` of an lvalue moves from it, and the run's
    // reading belongs to every caller that joined it.
    MeterlySnapshot reading = *run->reading;
    co_return reading;
}

MeterlySnapshotStore::MeterlySnapshotStore(const QString& applicationSupportDirectory)
    : path(applicationSupportDirectory + u"/Velmora/last-subs.json"_s) {}

std::optional<MeterlySnapshot> MeterlySnapshotStore::load() const {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    try {
        auto snapshot = MeterlySnapshot::parse(QByteArrayView(file.readAll()));
        if (snapshot.hasUsableReading()) {
            return snapshot;
        }
    } catch (const DecodingError&) {
    }
    return std::nullopt;
}

void MeterlySnapshotStore::save(const MeterlySnapshot& snapshot) const {
    if (!snapshot.hasUsableReading()) {
        return;
    }
    writePrivateFile(path, snapshot.toJSON());
}

std::shared_ptr<MeterlyAlertsStore> MeterlyAlertsStore::create(QString path) {
    return std::shared_ptr<MeterlyAlertsStore>(new MeterlyAlertsStore(std::move(path)));
}

QString MeterlyAlertsStore::defaultPath(const QString& home) {
    return home + u"/.meterly/.alerts-last"_s;
}

Task<void> MeterlyAlertsStore::notifyNew(QStringList lines, Deliver deliver) {
    auto self = shared_from_this();
    while (inFlight_) {
        co_await waiters_.wait();
    }
    inFlight_ = true;
    // Every way out from here, failures included, lets the next caller in.
    struct Release {
        MeterlyAlertsStore* store;
        ~Release() {
            store->inFlight_ = false;
            store->waiters_.wakeAll();
        }
    } release{this};

    QSet<QString> delivered;
    QFile file(path_);
    if (file.exists()) {
        if (!file.open(QIODevice::ReadOnly)) {
            throw TesselError(u"Could not read %1: %2"_s.arg(path_, file.errorString()));
        }
        const QByteArray bytes = file.readAll();
        if (file.error() != QFileDevice::NoError) {
            throw TesselError(u"Could not read %1: %2"_s.arg(path_, file.errorString()));
        }
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        const QString text = decoder(bytes);
        if (decoder.hasError()) {
            throw TesselError(u"Could not read %1: it is not UTF-8 text"_s.arg(path_));
        }
        for (const QStringView line : splitAtLineBreaks(text)) {
            delivered.insert(line.toString());
        }
    }

    QStringList kept;
    QSet<QString> seen;
    std::exception_ptr failure;
    for (const QString& line : lines) {
        if (line.isEmpty() || seen.contains(line)) {
            continue;
        }
        seen.insert(line);
        if (delivered.contains(line)) {
            kept.append(line);
            continue;
        }
        try {
            co_await deliver(line);
            kept.append(line);
        } catch (...) {
            failure = std::current_exception();
        }
    }

    QByteArray bytes;
    for (const QString& line : kept) {
        bytes += line.toUtf8();
        bytes += '\n';
    }
    writePrivateFile(path_, bytes);
    if (failure) {
        std::rethrow_exception(failure);
    }
}

} // namespace tessel
