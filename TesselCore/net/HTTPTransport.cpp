#include "net/HTTPTransport.h"

#include "errors/SystemError.h"

#include <QCoreApplication>
#include <QFile>
#include <QSocketNotifier>

#include <curl/curl.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <coroutine>
#include <cstring>
#include <limits>

namespace tessel {

using namespace Qt::Literals::StringLiterals;

struct Transfer {
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    QByteArray url;
    QByteArray method;
    QByteArray body; // curl reads it in place: it lives as long as the transfer
    QByteArray received;
    QFile* file = nullptr; // a download's body goes here instead
    int fileError = 0;
    char errorText[CURL_ERROR_SIZE] = {};

    double idleLimit = 30;
    double lastProgress = 0;
    curl_off_t uploaded = 0;
    int requestsStarted = 0;
    bool repeatRefused = false;

    HTTPTransport::Ending ending = HTTPTransport::Ending::running;
    CURLcode result = CURLE_OK;
    long status = 0;
    std::coroutine_handle<> waiter;
    CancellationToken::Registration registration;

    Transfer() = default;
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer() {
        if (easy) {
            curl_easy_cleanup(easy);
        }
        curl_slist_free_all(headers);
    }
};

namespace {

const QString notHTTP = u"No HTTP response — check the server URL and retry."_s;

void initialiseOnce() {
    static const bool done = [] {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        return true;
    }();
    (void)done;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const auto length = static_cast<qsizetype>(size * count);
    transfer->lastProgress = monotonicNow();
    if (!transfer->file) {
        transfer->received.append(data, length);
    } else if (transfer->file->write(data, length) != length) {
        transfer->fileError = errno ? errno : EIO;
        return 0; // ends the transfer
    }
    return size * count;
}

size_t onHeader(char*, size_t size, size_t count, void* user) {
    static_cast<Transfer*>(user)->lastProgress = monotonicNow();
    return size * count;
}

// Counts the bytes of the request body that went out: sending is progress too.
int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded) {
    auto* transfer = static_cast<Transfer*>(user);
    if (uploaded != transfer->uploaded) {
        transfer->uploaded = uploaded;
        transfer->lastProgress = monotonicNow();
    }
    return 0;
}

// Called each time the request is about to go out on a connection. libcurl sends
// it a second time on its own when a reused connection died before any answer;
// the server may have acted on the first, so the second never leaves.
int onRequestStart(void* user, char*, char*, int, int) {
    auto* transfer = static_cast<Transfer*>(user);
    if (++transfer->requestsStarted > 1) {
        transfer->repeatRefused = true;
        return CURL_PREREQFUNC_ABORT;
    }
    return CURL_PREREQFUNC_OK;
}

CURLcode onTLSContext(CURL*, void* context, void* user) {
    X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(context));
    for (void* certificate : *static_cast<std::vector<void*>*>(user)) {
        X509_STORE_add_cert(store, static_cast<X509*>(certificate));
    }
    return CURLE_OK;
}

bool hasHeader(const HTTPRequest& request, const char* name) {
    return std::any_of(request.headers.begin(), request.headers.end(), [name](const auto& header) {
        return header.first.compare(name, Qt::CaseInsensitive) == 0;
    });
}

URLError urlErrorFor(const Transfer& transfer) {
    const QString curlText = QString::fromUtf8(
        transfer.errorText[0] ? transfer.errorText : curl_easy_strerror(transfer.result));
    if (transfer.repeatRefused) {
        return URLError(URLError::connectionClosed,
                        u"The connection closed before the answer arrived."_s);
    }
    switch (transfer.result) {
    case CURLE_OPERATION_TIMEDOUT:
        return URLError(URLError::timedOut, u"The request timed out."_s);
    case CURLE_COULDNT_CONNECT:
        return URLError(URLError::connectionRefused, curlText);
    case CURLE_COULDNT_RESOLVE_HOST:
        return URLError(URLError::hostNotFound, curlText);
    case CURLE_COULDNT_RESOLVE_PROXY:
        return URLError(URLError::proxyFailed, curlText);
    case CURLE_GOT_NOTHING:
        return URLError(URLError::connectionClosed,
                        u"The connection closed before the answer arrived."_s);
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        return URLError(URLError::connectionClosed, curlText);
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
        return URLError(URLError::tlsFailed, u"TLS handshake failed: "_s + curlText);
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_UNSUPPORTED_PROTOCOL:
        return URLError(URLError::protocolFailure, curlText);
    default:
        return URLError(URLError::unknownNetwork, curlText);
    }
}

// Suspends the request's coroutine until the transport ends the transfer.
class TransferAwaiter {
public:
    TransferAwaiter(HTTPTransport& transport, std::shared_ptr<Transfer> transfer,
                    CancellationToken token)
        : transport_(transport), transfer_(std::move(transfer)), token_(std::move(token)) {}
    bool await_ready() const { return false; }
    void await_suspend(std::coroutine_handle<> handle) {
        transfer_->waiter = handle;
        transport_.start(transfer_, token_);
    }
    void await_resume() const {}

private:
    HTTPTransport& transport_;
    std::shared_ptr<Transfer> transfer_;
    CancellationToken token_;
};

} // namespace

HTTPTransport::HTTPTransport(HTTPSession::Options options) : options_(std::move(options)) {
    initialiseOnce();
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &HTTPTransport::onSocket);
    curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &HTTPTransport::onTimer);
    curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);

    curlTimer_.setSingleShot(true);
    curlTimer_.setTimerType(Qt::PreciseTimer);
    connect(&curlTimer_, &QTimer::timeout, this, [this] { act(CURL_SOCKET_TIMEOUT, 0); });
    idleTimer_.setSingleShot(true);
    idleTimer_.setTimerType(Qt::PreciseTimer);
    connect(&idleTimer_, &QTimer::timeout, this, [this] { checkIdle(); });

    if (!options_.caFile.isEmpty()) {
        QFile file(options_.caFile);
        QByteArray pem;
        if (file.open(QIODevice::ReadOnly)) {
            pem = file.readAll();
        }
        BIO* bio = BIO_new_mem_buf(pem.constData(), static_cast<int>(pem.size()));
        while (X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
            extraCertificates_.push_back(certificate);
        }
        BIO_free(bio);
        if (extraCertificates_.empty()) {
            caProblem_ = u"The trusted certificate file %1 holds no readable certificate — check "
                         u"the file and retry."_s.arg(options_.caFile);
        }
    }
}

HTTPTransport::~HTTPTransport() {
    closing_ = true;
    curlTimer_.stop();
    idleTimer_.stop();
    // Requests hold the session, so none is running here; cleaning up the multi
    // handle closes the connections it kept, telling us to forget each socket.
    curl_multi_cleanup(multi_);
    for (auto& [socket, watch] : sockets_) {
        delete watch.read;
        delete watch.write;
    }
    for (void* certificate : extraCertificates_) {
        X509_free(static_cast<X509*>(certificate));
    }
}

Task<HTTPResponse> HTTPTransport::perform(HTTPRequest request, CancellationToken token) {
    const QString scheme = request.url.scheme();
    if (!request.url.isValid() || (scheme != u"http"_s && scheme != u"https"_s)) {
        throw TesselError(notHTTP);
    }
    if (!caProblem_.isEmpty()) {
        throw TesselError(caProblem_);
    }

    auto transfer = std::make_shared<Transfer>();
    Transfer& t = *transfer;
    t.easy = curl_easy_init();
    t.url = request.url.toEncoded();
    t.method = request.method;
    t.body = std::move(request.body);
    t.idleLimit = std::clamp(std::min(options_.inactivitySeconds, request.timeout), 0.0, 86400.0);

    CURL* easy = t.easy;
    curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
    curl_easy_setopt(easy, CURLOPT_URL, t.url.constData());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
    // curl counts idle time in whole seconds and reuses a connection while that
    // count is at most the limit: a limit of 4 reused connections idle 4.9 s,
    // into the close of a server that waits 5 s. One less gives the intended limit.
    curl_easy_setopt(
        easy, CURLOPT_MAXAGE_CONN,
        std::max(0L,
                 static_cast<long>(std::floor(std::min(options_.reuseIdleSeconds, 86400.0))) - 1));
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    // Over HTTP/2 a second request waits for the first connection rather than
    // opening another.
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS,
                     static_cast<long>(std::clamp(options_.totalSeconds, 0.001, 86400.0) * 1000.0));
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.errorText);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer.get());
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &onProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, transfer.get());
    curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &onRequestStart);
    curl_easy_setopt(easy, CURLOPT_PREREQDATA, transfer.get());
    if (!extraCertificates_.empty()) {
        curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &onTLSContext);
        curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, &extraCertificates_);
    }

    // The request as the caller built it: curl's own Accept, Expect and form
    // content type are taken out.
    for (const auto& [name, value] : request.headers) {
        t.headers = curl_slist_append(
            t.headers, (value.isEmpty() ? name + ';' : name + ": " + value).constData());
    }
    for (const char* name : {"Accept", "Expect", "Content-Type"}) {
        if (!hasHeader(request, name)) {
            t.headers = curl_slist_append(t.headers, (QByteArray(name) + ':').constData());
        }
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, t.headers);

    if (t.method == "GET" && t.body.isEmpty()) {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (t.method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(t.body.size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, t.body.constData());
        if (t.method != "POST") {
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, t.method.constData());
        }
    }

    co_await TransferAwaiter(*this, transfer, token);

    switch (t.ending) {
    case Ending::cancelled:
        throw Cancelled();
    case Ending::timedOut:
        throw URLError(URLError::timedOut, u"The request timed out."_s);
    case Ending::running:
    case Ending::finished:
        break;
    }
    if (t.result != CURLE_OK) {
        throw urlErrorFor(t);
    }
    if (t.status < 100) {
        throw TesselError(notHTTP);
    }
    co_return HTTPResponse{std::move(t.received), static_cast<int>(t.status)};
}

Task<int> HTTPTransport::download(QUrl url, QString path, CancellationToken token) {
    if (!caProblem_.isEmpty()) {
        throw TesselError(caProblem_);
    }
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        throw SystemError(path, errno ? errno : EACCES);
    }
    auto transfer = std::make_shared<Transfer>();
    Transfer& t = *transfer;
    t.easy = curl_easy_init();
    t.url = url.toEncoded();
    t.file = &file;
    // A download lasts as long as it moves: the inactivity limit holds, the
    // whole-request limit does not.
    t.idleLimit = std::clamp(options_.inactivitySeconds, 0.0, 86400.0);

    // Unlike a request of the meet API, a download follows redirects and may be
    // sent again: fetching a file changes nothing on the server. A redirect
    // leads only to HTTPS: one to plain HTTP would hand the file to anyone on
    // the way.
    CURL* easy = t.easy;
    curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
    curl_easy_setopt(easy, CURLOPT_URL, t.url.constData());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 20L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.errorText);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer.get());
    if (!extraCertificates_.empty()) {
        curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &onTLSContext);
        curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, &extraCertificates_);
    }

    co_await TransferAwaiter(*this, transfer, token);

    if (t.ending == Ending::cancelled) {
        throw Cancelled();
    }
    if (t.ending == Ending::timedOut) {
        throw URLError(URLError::timedOut, u"The request timed out."_s);
    }
    if (t.fileError != 0) {
        throw SystemError(path, t.fileError);
    }
    long redirects = 0;
    curl_easy_getinfo(easy, CURLINFO_REDIRECT_COUNT, &redirects);
    if (t.result == CURLE_UNSUPPORTED_PROTOCOL && redirects > 0) {
        const char* next = nullptr;
        curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &next);
        throw URLError(URLError::protocolFailure,
                       u"The download was redirected to %1, which is not HTTPS — it was stopped "
                       u"there; tell the people who run %2."_s.arg(
                           QString::fromUtf8(next ? next : ""), url.host()));
    }
    if (t.result != CURLE_OK) {
        throw urlErrorFor(t);
    }
    if (!file.flush()) {
        throw SystemError(path, errno ? errno : EIO);
    }
    co_return t.status < 100 ? 0 : static_cast<int>(t.status);
}

void HTTPTransport::start(const std::shared_ptr<Transfer>& transfer,
                          const CancellationToken& token) {
    transfer->lastProgress = monotonicNow();
    running_.push_back(transfer.get());
    const std::weak_ptr<Transfer> weak = transfer;
    transfer->registration = token.onCancel(this, [this, weak] {
        if (auto t = weak.lock()) {
            end(t.get(), Ending::cancelled);
        }
    });
    curl_multi_add_handle(multi_, transfer->easy);
    armIdleCheck();
}

void HTTPTransport::end(Transfer* transfer, Ending ending) {
    if (transfer->ending != Ending::running) {
        return;
    }
    transfer->ending = ending;
    if (ending == Ending::finished) {
        curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &transfer->status);
    }
    curl_multi_remove_handle(multi_, transfer->easy);
    std::erase(running_, transfer);
    transfer->registration.reset();
    // Resumed from the loop, not from inside curl or a notifier: the request's
    // coroutine may start the next request or drop the last client at once.
    const auto handle = transfer->waiter;
    QMetaObject::invokeMethod(
        this, [handle] { handle.resume(); }, Qt::QueuedConnection);
}

int HTTPTransport::onSocket(void*, int socket, int what, void* self, void*) {
    static_cast<HTTPTransport*>(self)->watch(socket, what);
    return 0;
}

int HTTPTransport::onTimer(void*, long milliseconds, void* self) {
    auto* transport = static_cast<HTTPTransport*>(self);
    if (transport->closing_) {
        return 0;
    }
    if (milliseconds < 0) {
        transport->curlTimer_.stop();
    } else {
        transport->curlTimer_.start(static_cast<int>(std::min<long>(milliseconds, 86400000)));
    }
    return 0;
}

void HTTPTransport::watch(int socket, int what) {
    if (what == CURL_POLL_REMOVE) {
        auto found = sockets_.find(socket);
        if (found == sockets_.end()) {
            return;
        }
        // Deleted later: this may run inside one of the notifier's own signals.
        for (QSocketNotifier* notifier : {found->second.read, found->second.write}) {
            if (notifier) {
                notifier->setEnabled(false);
                if (closing_) {
                    delete notifier;
                } else {
                    notifier->deleteLater();
                }
            }
        }
        sockets_.erase(found);
        return;
    }
    Watch& watch = sockets_[socket];
    const bool wantRead = what == CURL_POLL_IN || what == CURL_POLL_INOUT;
    const bool wantWrite = what == CURL_POLL_OUT || what == CURL_POLL_INOUT;
    // A write notifier left on while curl only reads would fire without end.
    auto set = [this, socket](QSocketNotifier*& notifier, QSocketNotifier::Type type, bool on,
                              int flag) {
        if (!notifier && on) {
            notifier = new QSocketNotifier(socket, type, this);
            connect(notifier, &QSocketNotifier::activated, this,
                    [this, socket, flag] { act(socket, flag); });
        }
        if (notifier && notifier->isEnabled() != on) {
            notifier->setEnabled(on);
        }
    };
    set(watch.read, QSocketNotifier::Read, wantRead, CURL_CSELECT_IN);
    set(watch.write, QSocketNotifier::Write, wantWrite, CURL_CSELECT_OUT);
}

void HTTPTransport::act(int socket, int flags) {
    int stillRunning = 0;
    curl_multi_socket_action(multi_, socket, flags, &stillRunning);
    collect();
}

void HTTPTransport::collect() {
    int left = 0;
    std::vector<std::pair<Transfer*, CURLcode>> done;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) {
            continue;
        }
        Transfer* transfer = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
        done.emplace_back(transfer, message->data.result);
    }
    for (auto [transfer, result] : done) {
        transfer->result = result;
        end(transfer, Ending::finished);
    }
}

// Ends every transfer that moved no byte for its inactivity limit. One timer
// serves all transfers: progress only moves deadlines later, so the timer is
// set again only when it fires or a transfer with an earlier deadline starts.
void HTTPTransport::checkIdle() {
    const double now = monotonicNow();
    const std::vector<Transfer*> running = running_;
    for (Transfer* transfer : running) {
        if (now - transfer->lastProgress >= transfer->idleLimit) {
            end(transfer, Ending::timedOut);
        }
    }
    armIdleCheck();
}

void HTTPTransport::armIdleCheck() {
    if (running_.empty()) {
        idleTimer_.stop();
        return;
    }
    double soonest = std::numeric_limits<double>::infinity();
    for (const Transfer* transfer : running_) {
        soonest = std::min(soonest, transfer->lastProgress + transfer->idleLimit);
    }
    const auto wait =
        static_cast<int>(std::clamp((soonest - monotonicNow()) * 1000.0 + 1.0, 0.0, 86400000.0));
    if (idleTimer_.isActive() && idleTimer_.remainingTime() <= wait) {
        return;
    }
    idleTimer_.start(wait);
}

} // namespace tessel
