#include "net/HTTPClient.h"

#include "errors/ErrorLog.h"
#include "net/HTTPFailure.h"
#include "net/HTTPTransport.h"

#include <mutex>

namespace tessel {

namespace {

constexpr qsizetype maxRememberedPaths = 16;

QString reportingPath(const QUrl& url) {
    return url.isEmpty() ? QStringLiteral("unknown path") : url.path();
}

} // namespace

class HTTPDiagnostics {
public:
    explicit HTTPDiagnostics(bool retainUntilCleared) : retainUntilCleared_(retainUntilCleared) {}

    void record(const std::optional<ErrorPresentation>& presentation, const QString& path,
                bool logged = true) {
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
        if (presentation && logged) {
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
    : options_(std::move(options)), transport_(std::make_shared<HTTPTransport>(options_)) {}

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
    // Copies keep the transport and the memory alive for the whole exchange.
    const auto session = session_;
    const auto diagnostics = diagnostics_;
    const QString path = reportingPath(request.url);
    const auto expectedRefusal = std::move(request.expectedRefusal);

    token.check();

    HTTPResponse response;
    std::optional<URLError> broken;
    std::optional<TesselError> refused;
    try {
        response = co_await session->transport_->perform(std::move(request), token);
    } catch (const URLError& error) {
        broken = error;
    } catch (const TesselError& error) {
        refused = error;
    }
    if (broken) {
        recordAndThrow(*diagnostics, path, *broken);
    }
    if (refused) {
        recordAndThrow(*diagnostics, path, *refused);
    }

    if (response.status < 200 || response.status > 299) {
        const HTTPFailure failure(response.status, HTTPFailure::bodyText(response.body), path);
        diagnostics->record(ErrorPresentation::from(failure), path,
                            !expectedRefusal || !expectedRefusal(response));
    } else {
        diagnostics->record(std::nullopt, path);
    }
    co_return response;
}

Task<int> HTTPClient::download(QUrl url, QString path, CancellationToken token) const {
    // The copy keeps the transport alive for the whole download.
    const auto session = session_;
    token.check();
    co_return co_await session->transport_->download(std::move(url), std::move(path), token);
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
