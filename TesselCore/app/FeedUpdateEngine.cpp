#include "app/FeedUpdateEngine.h"

#include "errors/ErrorLog.h"
#include "errors/SystemError.h"
#include "net/HTTPFailure.h"
#include "net/JSON.h"

#include <QCoroFuture>
#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QFuture>
#include <QPromise>
#include <QScopeGuard>
#include <QThreadPool>
#include <QVersionNumber>

#include <algorithm>
#include <cctype>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

// The lower-case hex SHA-256 of a file, read on a pool thread: an image is
// large. Empty when the file cannot be read.
QFuture<QByteArray> sha256Of(const QString& path) {
    auto promise = std::make_shared<QPromise<QByteArray>>();
    QFuture<QByteArray> sum = promise->future();
    promise->start();
    QThreadPool::globalInstance()->start([promise, path] {
        QFile file(path);
        QCryptographicHash hash(QCryptographicHash::Sha256);
        promise->addResult(file.open(QIODevice::ReadOnly) && hash.addData(&file)
                               ? hash.result().toHex()
                               : QByteArray());
        promise->finish();
    });
    return sum;
}

} // namespace

UpdateFeedEntry UpdateFeedEntry::fromJSON(const QByteArray& bytes) {
    const JSON json = JSON::parse(bytes);
    UpdateFeedEntry entry;
    entry.version = json.requiredString(u"version"_s);
    entry.url = QUrl(json.requiredString(u"url"_s), QUrl::StrictMode);
    entry.sha256 = json.requiredString(u"sha256"_s).toLower().toLatin1();
    entry.notes = json["notes"].string().value_or(QString());
    // fromHex skips what isn't a hex digit: the text itself must be 64 of them,
    // or every download would fail its check.
    const bool hex = std::all_of(entry.sha256.begin(), entry.sha256.end(), [](char c) {
        return std::isxdigit(static_cast<unsigned char>(c));
    });
    if (entry.version.trimmed().isEmpty() || !entry.url.isValid() ||
        (entry.url.scheme() != u"https"_s && entry.url.scheme() != u"http"_s) ||
        entry.sha256.size() != 64 || !hex) {
        throw DecodingError(u"The update feed has no usable version, url and sha256."_s);
    }
    return entry;
}

bool isNewerVersion(const QString& candidate, const QString& current) {
    return QVersionNumber::compare(QVersionNumber::fromString(candidate.trimmed()),
                                   QVersionNumber::fromString(current.trimmed())) > 0;
}

FeedUpdateEngine::FeedUpdateEngine(Dependencies dependencies, QObject* parent)
    : UpdateEngine(parent), deps_(std::move(dependencies)) {}

bool FeedUpdateEngine::canCheck() const {
    return deps_.feedURL && deps_.feedURL->isValid() && !checking_;
}

QString FeedUpdateEngine::stagedPath(const QString& image) {
    const QFileInfo info(image);
    return info.absolutePath() + u"/."_s + info.fileName() + u".update"_s;
}

void FeedUpdateEngine::checkForUpdates() {
    if (!canCheck()) {
        return;
    }
    QPointer<FeedUpdateEngine> self(this);
    spawn([self]() -> Task<void> {
        if (self) {
            co_await self->check();
        }
    });
}

Task<void> FeedUpdateEngine::check() {
    if (checking_ || !deps_.feedURL) {
        co_return;
    }
    QPointer<FeedUpdateEngine> self(this);
    checking_ = true;
    emit canCheckChanged();
    const auto tell = deps_.tell;
    try {
        gate()->mayPerformUpdateCheck();
        HTTPRequest request;
        request.url = *deps_.feedURL;
        const QByteArray body = co_await deps_.http.checked(request);
        if (!self) {
            co_return;
        }
        const UpdateFeedEntry entry = UpdateFeedEntry::fromJSON(body);
        if (!isNewerVersion(entry.version, deps_.currentVersion)) {
            tell(u"You're up to date — Velmora %1 is the newest version."_s.arg(
                deps_.currentVersion));
        } else {
            gate()->shouldProceedWithUpdate();
            if (deps_.appImage) {
                co_await install(entry);
            } else if (deps_.packageManaged) {
                tell(u"Velmora %1 is available — your package manager installs it with the "
                     u"system's updates (package velmora-tessel)."_s.arg(entry.version));
            } else {
                tell(u"Velmora %1 is available — its download page opens in your browser."_s.arg(
                    entry.version));
                deps_.openURL(entry.url);
            }
        }
    } catch (const Cancelled&) {
    } catch (const std::exception& error) {
        // Refusals during a call come as words of their own; the rest through
        // the one mapping of failures.
        const auto* refusal = dynamic_cast<const TesselError*>(&error);
        const ErrorPresentation lines =
            refusal ? ErrorPresentation(refusal->message(), {}) : ErrorPresentation::from(error);
        if (!refusal) {
            lines.log();
        }
        tell(lines.humanLine);
    }
    if (self) {
        checking_ = false;
        emit canCheckChanged();
    }
}

Task<void> FeedUpdateEngine::install(UpdateFeedEntry entry) {
    QPointer<FeedUpdateEngine> self(this);
    const QString image = *deps_.appImage;
    // Streamed into a file beside the running image, so the relaunch is one
    // rename on the same file system and an image of any size never sits in
    // memory. A download has the transport's inactivity limit and no limit on
    // its whole length.
    const QString staged = stagedPath(image);
    auto removeStaged = qScopeGuard([staged] { QFile::remove(staged); });
    int status = 0;
    try {
        status = co_await deps_.http.download(entry.url, staged);
    } catch (const SystemError&) {
        throw TesselError(u"The update could not be saved beside %1 — check that the folder is "
                          u"writable."_s.arg(image));
    }
    if (!self) {
        co_return;
    }
    if (status == 0) {
        throw URLError(URLError::protocolFailure,
                       u"The server's answer was not an HTTP response."_s);
    }
    if (status < 200 || status > 299) {
        throw HTTPFailure(status, QString(), entry.url.path());
    }
    const QByteArray sum = co_await sha256Of(staged);
    if (!self) {
        co_return;
    }
    if (sum != entry.sha256) {
        throw TesselError(u"The downloaded update didn't match its checksum — try again later."_s);
    }
    QFile::setPermissions(staged, QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                      QFileDevice::ExeOwner | QFileDevice::ReadGroup |
                                      QFileDevice::ExeGroup | QFileDevice::ReadOther |
                                      QFileDevice::ExeOther);
    removeStaged.dismiss();

    const auto relaunch = deps_.relaunch;
    const auto tell = deps_.tell;
    auto block = [staged, image, relaunch, tell] {
        if (std::rename(QFile::encodeName(staged).constData(),
                        QFile::encodeName(image).constData()) != 0) {
            tell(u"The update could not replace %1 — check that the folder is writable."_s.arg(
                image));
            return;
        }
        relaunch(image);
    };
    if (gate()->shouldPostponeRelaunch(block)) {
        tell(u"Velmora %1 is ready — it starts when your call ends."_s.arg(entry.version));
        co_return;
    }
    block();
}

} // namespace tessel
