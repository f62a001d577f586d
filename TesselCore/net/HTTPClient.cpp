#include "net/HTTPClient.h"

#include "errors/ErrorLog.h"
#include "net/HTTPFailure.h"

#include <QCoroNetworkReply>
#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSslConfiguration>
#include <QTimer>

#include <mutex>

namespace tessel {

namespace {

constexpr qsizetype maxRememberedPaths = 16;

// Refuses every cookie: the transport keeps no state between requests.
class NoCookies : public QNetworkCookieJar {
public:
    using QNetworkCookieJar::QNetworkCookieJar;
    QList<QNetworkCookie> cookiesForUrl(const QUrl&) const override { return {}; }
    bool setCookiesFromUrl(const QList<QNetworkCookie>&, const QUrl&) override { return false; }
};

struct ReplyDeleter {
    void operator()(QNetworkReply* reply) const {
        if (reply) {
            reply->deleteLater();
        }
    }
};

QString reportingPath(const QUrl& url) {
    return url.isEmpty() ? QStringLiteral("unknown path") : url.path();
}

int milliseconds(double seconds) {
    return static_cast<int>(std::clamp(seconds, 0.0, 86400.0) * 1000.0);
}

} // namespace

class HTTPDiagnostics {
public:
    explicit HTTPDiagnostics(bool retainUntilCleared) : retainUntilCleared_(retainUntilCleared) {}

    void record(const std::optional<ErrorPresentation>& presentation, const QString& path) {
        if (retainUntilCleared_ && !presentation) {
            return;
        }
        {
            std::lock_guard lock(mutex_);
            std::erase_if(failures_, [&](const auto& entry) { return entry.first == path; });
            if (presentation) {
                failures_.emplace_back(path, *presentation);
                if (static_cast<qsizetype>(failures_.size()) > maxRememberedPaths) {
                    failures_.erase(failures_.begin());
                }
            }
        }
        if (presentation) {
            presentation->log();
        }
    }

    std::optional<ErrorPresentation> latest() const {
        std::lock_guard lock(mutex_);
        if (failures_.empty()) {
            return std::nullopt;
        }
        return failures_.back().second;
    }

    void clear() {
        std::lock_guard lock(mutex_);
        failures_.clear();
    }

private:
    const bool retainUntilCleared_;
    mutable std::mutex mutex_;
    std::vector<std::pair<QString, ErrorPresentation>> failures_;
};

namespace {
template <typename Error>
[[noreturn]] void recordAndThrow(HTTPDiagnostics& diagnostics, const QString& path,
                                 const Error& error) {
    diagnostics.record(ErrorPresentation::from(error, path), path);
    throw error;
}
} // namespace

void HTTPRequest::setHeader(const QByteArray& name, const QByteArray& value) {
    for (auto& header : headers) {
        if (header.first.compare(name, Qt::CaseInsensitive) == 0) {
            header.second = value;
            return;
        }
    }
    headers.emplace_back(name, value);
}

HTTPSession::HTTPSession() : HTTPSession(Options{}) {}

HTTPSession::HTTPSession(Options options)
    : options_(std::move(options)), manager_(std::make_unique<QNetworkAccessManager>()) {
    manager_->setRedirectPolicy(QNetworkRequest::ManualRedirectPolicy);
    manager_->setCookieJar(new NoCookies(manager_.get()));
    manager_->setCache(nullptr);
    manager_->setAutoDeleteReplies(false);
}

HTTPSession::~HTTPSession() = default;

HTTPClient::HTTPClient() : HTTPClient(std::make_shared<HTTPSession>()) {}

HTTPClient::HTTPClient(std::shared_ptr<HTTPSession> session)
    : HTTPClient(std::move(session), std::make_shared<HTTPDiagnostics>(false)) {}

HTTPClient::HTTPClient(std::shared_ptr<HTTPSession> session,
                       std::shared_ptr<HTTPDiagnostics> diagnostics)
    : session_(std::move(session)), diagnostics_(std::move(diagnostics)) {}

HTTPClient HTTPClient::withRetainedFailures() const {
    return HTTPClient(session_, std::make_shared<HTTPDiagnostics>(true));
}

std::optional<ErrorPresentation> HTTPClient::latestFailure() const {
    return diagnostics_->latest();
}

void HTTPClient::clearFailures() const {
    diagnostics_->clear();
}

Task<HTTPResponse> HTTPClient::send(HTTPRequest request, CancellationToken token) const {
    // Copies keep the manager and the memory alive for the whole exchange.
    const auto session = session_;
    const auto diagnostics = diagnostics_;
    const QString path = reportingPath(request.url);

    token.check();

    QNetworkRequest outgoing(request.url);
    for (const auto& [name, value] : request.headers) {
        outgoing.setRawHeader(name, value);
    }
    outgoing.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                          QNetworkRequest::ManualRedirectPolicy);
    outgoing.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                          QNetworkRequest::AlwaysNetwork);
    outgoing.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    outgoing.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    outgoing.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    const auto& options = session->options();
    if (!options.extraCertificates.isEmpty() && request.url.scheme() == QLatin1String("https")) {
        QSslConfiguration ssl = QSslConfiguration::defaultConfiguration();
        ssl.addCaCertificates(options.extraCertificates);
        outgoing.setSslConfiguration(ssl);
    }

    std::unique_ptr<QNetworkReply, ReplyDeleter> reply(
        request.body.isEmpty() && request.method == "GET"
            ? session->manager().get(outgoing)
            : session->manager().sendCustomRequest(outgoing, request.method, request.body));

    // Why a reply ended early; read after it finished. Shared with the callbacks,
    // which may be delivered after this frame is gone.
    enum class Ending { none, cancelled, timedOut };
    auto ending = std::make_shared<Ending>(Ending::none);
    const QPointer<QNetworkReply> watched(reply.get());
    auto end = [ending, watched](Ending why) {
        if (watched && !watched->isFinished() && *ending == Ending::none) {
            *ending = why;
            watched->abort();
        }
    };

    auto* idle = new QTimer(reply.get());
    idle->setSingleShot(true);
    idle->setInterval(milliseconds(std::min(options.inactivitySeconds, request.timeout)));
    QObject::connect(idle, &QTimer::timeout, [end] { end(Ending::timedOut); });
    auto progress = [idle] { idle->start(); };
    QObject::connect(reply.get(), &QNetworkReply::uploadProgress, idle, progress);
    QObject::connect(reply.get(), &QNetworkReply::downloadProgress, idle, progress);
    QObject::connect(reply.get(), &QNetworkReply::metaDataChanged, idle, progress);
    QObject::connect(reply.get(), &QNetworkReply::readyRead, idle, progress);
    idle->start();

    auto* whole = new QTimer(reply.get());
    whole->setSingleShot(true);
    QObject::connect(whole, &QTimer::timeout, [end] { end(Ending::timedOut); });
    whole->start(milliseconds(options.totalSeconds));

    auto registration = token.onCancel(reply.get(), [end] { end(Ending::cancelled); });

    if (!reply->isFinished()) {
        co_await reply.get();
    }
    idle->stop();
    whole->stop();
    registration.reset();

    if (*ending == Ending::cancelled || token.isCancelled()) {
        throw Cancelled();
    }

    const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const auto networkError = reply->error();
    // Errors below 200 are the connection's own (refused, closed, TLS, ...); a
    // status that came before such an error was not a complete answer.
    const bool brokenExchange =
        networkError != QNetworkReply::NoError && networkError < QNetworkReply::ContentAccessDenied;
    if (*ending == Ending::timedOut || brokenExchange || !statusAttribute.isValid()) {
        if (*ending == Ending::timedOut) {
            recordAndThrow(
                *diagnostics, path,
                URLError(QNetworkReply::TimeoutError, QStringLiteral("The request timed out.")));
        }
        if (networkError != QNetworkReply::NoError) {
            recordAndThrow(*diagnostics, path, URLError(networkError, reply->errorString()));
        }
        recordAndThrow(
            *diagnostics, path,
            TesselError(QStringLiteral("No HTTP response — check the server URL and retry.")));
    }

    HTTPResponse response;
    response.status = statusAttribute.toInt();
    response.body = reply->readAll();
    if (response.status < 200 || response.status > 299) {
        const HTTPFailure failure(response.status, HTTPFailure::bodyText(response.body), path);
        diagnostics->record(ErrorPresentation::from(failure), path);
    } else {
        diagnostics->record(std::nullopt, path);
    }
    co_return response;
}

Task<QByteArray> HTTPClient::checked(HTTPRequest request, CancellationToken token) const {
    const QString path = reportingPath(request.url);
    HTTPResponse response = co_await send(std::move(request), std::move(token));
    if (response.status < 200 || response.status > 299) {
        throw HTTPFailure(response.status, HTTPFailure::bodyText(response.body), path);
    }
    co_return response.body;
}

} // namespace tessel
