#include "meet/MeetAPI.h"

#include "errors/ErrorLog.h"
#include "net/HTTPFailure.h"
#include "net/InternetDate.h"

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

const QString invalidAddress =
    QStringLiteral("The organisation address is invalid — enter the secure meet address for your "
                   "organisation.");
const QString noticeMissing =
    u"The recording notice is missing — restore the server notice before starting."_s;

// GCC 12 cannot keep array temporaries (string literals bound to parameters,
// initializer lists) alive across a co_await ("array used as initializer"):
// such values are built before the co_await statement that uses them.
const QByteArray methodGET = QByteArrayLiteral("GET");
const QByteArray methodPOST = QByteArrayLiteral("POST");

QUrl endpoint(const QUrl& base, const QString& path) {
    QUrl url = base;
    QString root = base.path();
    while (root.endsWith(QLatin1Char('/'))) {
        root.chop(1);
    }
    url.setPath(root + u"/api/v1/meetings"_s + path);
    return url;
}

std::optional<QDateTime> internetDate(const JSON& value) {
    const auto text = value.string();
    return text ? parseInternetDate(*text) : std::nullopt;
}

} // namespace

MeetAPI::MeetAPI(QUrl baseURL, TokenProvider tokenProvider, HTTPClient http)
    : baseURL_(std::move(baseURL)), tokenProvider_(std::move(tokenProvider)),
      http_(std::move(http)) {
    validateURL(baseURL_);
}

bool MeetAPI::isLoopbackHost(const QString& host) {
    return host == QLatin1String("localhost") || host == QLatin1String("127.0.0.1") ||
           host == QLatin1String("::1") || host == QLatin1String("[::1]");
}

void MeetAPI::validateURL(const QUrl& url) {
    const QString scheme = url.scheme();
    const bool secure = scheme == QLatin1String("https") ||
                        (scheme == QLatin1String("http") && isLoopbackHost(url.host()));
    if (!url.isValid() || url.host().isEmpty() || !url.userName().isEmpty() ||
        !url.password().isEmpty() || url.hasQuery() || url.hasFragment() || !secure) {
        throw TesselError(invalidAddress);
    }
}

bool MeetAPI::isClosedStatus(const JSON& status) {
    const auto text = status.string();
    return text &&
           (*text == QLatin1String("ended") || *text == QLatin1String("processing") ||
            *text == QLatin1String("complete") || *text == QLatin1String("complete_unrecorded"));
}

Task<JSON> MeetAPI::call(QString path, QByteArray method, std::optional<JSON::Object> body,
                         CancellationToken token) const {
    // Copied before the first wait: the caller's value may be gone by the answer.
    const MeetAPI api = *this;
    const QUrl url = endpoint(api.baseURL_, path);

    const std::optional<QString> sessionToken =
        api.tokenProvider_ ? api.tokenProvider_() : std::nullopt;
    if (!sessionToken || sessionToken->isEmpty()) {
        const HTTPFailure failure(401, u"No current member session"_s, url.path());
        log::error(failure.detailLine());
        throw failure;
    }

    HTTPRequest request;
    request.url = url;
    request.method = method;
    request.timeout = 60;
    request.setHeader("x-session-token", sessionToken->toUtf8());
    if (body) {
        request.setHeader("Content-Type", "application/json");
        request.body = JSON(std::move(*body)).dump();
    }
    const QByteArray answer = co_await api.http_.checked(std::move(request), std::move(token));
    if (answer.isEmpty()) {
        co_return JSON();
    }
    co_return JSON::parse(answer);
}

Task<QString> MeetAPI::create(QString title, QString counterpart, QString project) const {
    const MeetAPI api = *this;
    if (title.trimmed().isEmpty() || counterpart.trimmed().isEmpty()) {
        throw TesselError(QStringLiteral(
            "The call name and counterpart are required — fill in both before starting."));
    }
    JSON::Object body{
        {u"title"_s, title},
        {u"counterpart"_s, counterpart},
        {u"kind"_s, u"tessel"_s},
        {u"disclosure_acked"_s, true},
        {u"capture_source"_s, u"desktop"_s},
    };
    if (!project.isEmpty()) {
        body.emplace(u"project_slug"_s, project);
    }
    const JSON answer = co_await api.call(QString(), methodPOST, std::move(body));
    co_return answer["meeting"].requiredString(u"id"_s);
}

Task<std::pair<QString, QString>> MeetAPI::begin(QString meeting, bool started, bool acknowledged,
                                                 std::optional<QString> session,
                                                 std::optional<QString> recording,
                                                 Progress progress) const {
    const MeetAPI api = *this;
    const QString base = u"/"_s + meeting;

    const JSON consent = co_await api.call(base + u"/consent"_s, methodGET);
    const auto version = consent[u"notice"_s][u"version"_s].number();
    if (!version) {
        throw TesselError(noticeMissing);
    }
    if (!started) {
        co_await api.call(base + u"/start"_s, methodPOST);
        co_await progress(BeginProgress::started());
    }
    if (!acknowledged) {
        JSON::Object body{{u"version"_s, *version}};
        co_await api.call(base + u"/consent/ack"_s, methodPOST, std::move(body));
        co_await progress(BeginProgress::acknowledged());
    }
    if (!session) {
        JSON::Object body{{u"role"_s, u"host"_s}};
        const JSON joined = co_await api.call(base + u"/sessions"_s, methodPOST, std::move(body));
        session = joined[u"session"_s].requiredString(u"id"_s);
        co_await progress(BeginProgress::joined(*session));
    }
    if (!recording) {
        JSON::Object body{{u"action"_s, u"request"_s}, {u"capture_protocol"_s, 2}};
        const JSON requested =
            co_await api.call(base + u"/recording"_s, methodPOST, std::move(body));
        recording = requested[u"recording"_s].requiredString(u"id"_s);
        co_await progress(BeginProgress::requested(*recording));
    }
    co_return std::pair{*session, *recording};
}

Task<std::vector<OpenCall>> MeetAPI::liveTesselMeetings() const {
    const MeetAPI api = *this;
    const JSON answer = co_await api.call(QString(), methodGET);
    co_return openCalls(answer);
}

std::vector<OpenCall> MeetAPI::openCalls(const JSON& answer) {
    std::vector<OpenCall> calls;
    for (const JSON& meeting : answer["meetings"].array()) {
        if (meeting["kind"].string() != u"tessel"_s || meeting["status"].string() != u"live"_s ||
            meeting["is_host"].boolean() != true) {
            continue;
        }
        OpenCall call;
        call.id = meeting.requiredString(u"id"_s);
        call.title = meeting.requiredString(u"title"_s);
        call.counterpart = meeting["counterpart"].string().value_or(u"Unknown counterpart"_s);
        call.startedAt = internetDate(meeting["started_at"]);
        calls.push_back(std::move(call));
    }
    return calls;
}

Task<void> MeetAPI::stopOpenCall(QString id) const {
    const MeetAPI api = *this;
    const QString base = u"/"_s + id;
    const QString manifest = base + u"/recording/manifest"_s;

    const JSON first = co_await api.call(manifest, methodGET);
    const auto& parts = first["parts"].array();
    if (!parts.empty()) {
        const QString recording = parts.back().requiredString(u"id"_s);
        std::exception_ptr refused;
        JSON::Object body{{u"action"_s, u"stop"_s}, {u"recording_id"_s, recording}};
        try {
            co_await api.call(base + u"/recording"_s, methodPOST, std::move(body));
        } catch (const HTTPFailure& failure) {
            if (failure.needsSignIn()) {
                throw;
            }
            refused = std::current_exception();
        } catch (const Failure&) {
            refused = std::current_exception();
        }
        if (refused) {
            // The server may have stopped it before the answer was lost.
            const JSON again = co_await api.call(manifest, methodGET);
            const auto& now = again["parts"].array();
            const bool stopped = !now.empty() && now.back()["id"].string() == recording &&
                                 now.back()["state"].string() == u"stopped"_s;
            if (!stopped) {
                std::rethrow_exception(refused);
            }
        }
    }

    std::exception_ptr refused;
    try {
        co_await api.call(base + u"/end"_s, methodPOST);
    } catch (const HTTPFailure& failure) {
        if (failure.needsSignIn()) {
            throw;
        }
        refused = std::current_exception();
    } catch (const Failure&) {
        refused = std::current_exception();
    }
    if (refused) {
        const JSON call = co_await api.call(base, methodGET);
        if (!isClosedStatus(call["status"])) {
            std::rethrow_exception(refused);
        }
    }
}

ErrorPresentation OpenCall::refreshFailure(const std::exception& error,
                                           const std::optional<ErrorPresentation>& diagnostic) {
    ErrorPresentation lines = diagnostic ? *diagnostic : ErrorPresentation::from(error);
    if (const auto* failure = dynamic_cast<const HTTPFailure*>(&error);
        failure && failure->needsSignIn()) {
        lines.humanLine = u"Couldn't check for open calls — sign in again."_s;
    }
    return lines;
}

} // namespace tessel
