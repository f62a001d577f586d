#include "app/AppModel.h"

#include "errors/ErrorLog.h"
#include "errors/Failures.h"
#include "net/HTTPFailure.h"

using namespace Qt::StringLiterals;

namespace tessel {

const QString AppModel::invalidAddressMessage =
    u"The organisation address is invalid — enter the secure meet address for your organisation."_s;
const QString AppModel::clientName = u"velmora-tessel"_s;
const QString AppModel::sessionNotKeptMessage =
    u"This sign-in will not be kept after you quit because no keyring service is running — "
    u"install gnome-keyring or KWallet to keep it."_s;

namespace {

const QString meetBaseURLKey = u"meetBaseURL"_s;

ErrorPresentation linesOf(const std::exception_ptr& error) {
    return ErrorPresentation::from(error);
}

void logLines(const ErrorPresentation& lines) {
    log::error(lines.detailLine);
}

} // namespace

AppModel::AppModel(Services services, bool startingServices, QObject* parent)
    : QObject(parent), services_(std::move(services)),
      keychain_(services_.secureStore, services_.clock.wallClock),
      http_(services_.httpSession ? HTTPClient(services_.httpSession) : HTTPClient()),
      orgStore_(
          services_.defaults,
          Org::fromHost(services_.endpoints.defaultOrgHost).meetURL().toString(),
          [keychain = keychain_] { return keychain.hosts(); }, services_.endpoints.defaultOrgHost),
      infra_(services_.infra ? services_.infra : std::make_shared<NoInfra>()),
      updates_(
          std::make_unique<UpdateController>(std::move(services_.updateEngine), startingServices)) {
    baseURL_ = orgStore_.current().meetURL().toString();
    loginURL_ = baseURL_;
    configureTokenProvider();
    if (!startingServices) {
        return;
    }
    try {
        member_ = keychain_.load(org());
    } catch (...) {
        present(std::current_exception());
    }
    refreshOrgs();
    QPointer<AppModel> self(this);
    spawn([self]() -> Task<void> {
        if (self) {
            co_await self->refreshOpenCalls();
        }
    });
}

AppModel::~AppModel() {
    if (loginTask_) {
        loginTask_->cancel();
    }
}

QString AppModel::org() const {
    const QString host = QUrl(baseURL_).host();
    return host.isEmpty() ? u"organisation"_s : host;
}

QString AppModel::inboxURL() const {
    return u"https://"_s + org() + u"/inbox"_s;
}

bool AppModel::canChangeOrg() const {
    return !capture_ && !startingCapture_ && !stoppingOpenCall_ && !signingIn_;
}

bool AppModel::canStartCapture() const {
    return !startingCapture_ && !capture_ && !stoppingOpenCall_;
}

void AppModel::setLoginURL(const QString& url) {
    loginURL_ = url;
    emit organisationChanged();
}

void AppModel::setError(std::optional<QString> error, std::optional<QString> details) {
    error_ = std::move(error);
    errorDetails_ = std::move(details);
    permissionError_.reset();
    emit errorChanged();
}

void AppModel::setCapture(std::shared_ptr<CaptureSession> capture) {
    if (capture_) {
        disconnect(capture_.get(), nullptr, this, nullptr);
    }
    capture_ = std::move(capture);
    // The one link between a call and the update machinery.
    updates_->setCaptureIsHeld(capture_ != nullptr);
    emit captureChanged();
}

void AppModel::configureTokenProvider() {
    const QString host = org();
    const SessionKeychain keychain = keychain_;
    // A keyring that locks keeps nobody from a session it already gave: the
    // last one read is served meanwhile. Refused before any read, the keyring's
    // own words reach whoever asked, never the sign-in road.
    tokenProvider_ = [keychain, host]() -> std::optional<QString> {
        if (const auto session = keychain.current(host)) {
            return session->token;
        }
        return std::nullopt;
    };
}

void AppModel::refreshOrgs() {
    try {
        knownOrgs_ = orgStore_.known(baseURL_);
    } catch (...) {
        try {
            knownOrgs_ = {Org::fromHost(org())};
        } catch (...) {
            knownOrgs_ = {orgStore_.current()};
        }
        present(std::current_exception());
    }
    emit organisationChanged();
}

void AppModel::changeOrganisation() {
    if (capture_ || signingIn_) {
        return;
    }
    configureTokenProvider();
    openCalls_.clear();
    pendingOpenCallStop_.reset();
    member_.reset();
    emit organisationChanged();
    emit openCallsChanged();
    try {
        member_ = keychain_.load(org());
    } catch (...) {
        present(std::current_exception());
    }
    emit memberChanged();
}

void AppModel::selectOrg(const QString& host) {
    if (!canChangeOrg()) {
        return;
    }
    try {
        orgStore_.select(host, [this](const Org& chosen) {
            baseURL_ = chosen.meetURL().toString();
            loginURL_ = baseURL_;
            setError(std::nullopt);
            changeOrganisation();
            savedCallID_.reset();
            emit captureChanged();
        });
    } catch (...) {
        present(std::current_exception());
        return;
    }
    refreshOrgs();

    QPointer<AppModel> self(this);
    // A list still running for the old organisation ends first, so that its
    // answer is dropped and never taken for the new one's.
    spawn([self]() -> Task<void> {
        while (self && self->loadingOpenCalls_) {
            const CancellationToken never;
            co_await self->services_.clock.sleep(0.05, never);
        }
        if (self) {
            co_await self->refreshOpenCalls();
        }
    });
    spawn([infra = infra_]() -> Task<void> { co_await infra->refresh(false); });
}

void AppModel::signIn(std::function<void()> onSuccess) {
    if (signingIn_) {
        return;
    }
    setError(std::nullopt);
    const QUrl url(baseURL_, QUrl::StrictMode);
    if (!url.isValid()) {
        present(std::make_exception_ptr(TesselError(invalidAddressMessage)));
        return;
    }
    try {
        MeetAPI::validateURL(url);
    } catch (...) {
        present(std::current_exception());
        return;
    }
    signingIn_ = true;
    emit signInChanged();
    // The session is stored under this host, whatever the selection is by then.
    const QString host = org();
    QPointer<AppModel> self(this);
    loginTask_ = BackgroundTask::start(
        [self, host, onSuccess = std::move(onSuccess)](CancellationToken token) {
            return runSignIn(self, host, onSuccess, std::move(token));
        });
}

Task<void> AppModel::runSignIn(QPointer<AppModel> self, QString host,
                               std::function<void()> onSuccess, CancellationToken token) {
    const HTTPClient client(self->services_.httpSession ? HTTPClient(self->services_.httpSession)
                                                        : HTTPClient());
    const DeviceLogin login(self->services_.endpoints.authServiceURL, clientName, client,
                            self->services_.clock);
    try {
        const DeviceGrant grant = co_await login.requestCode(token);
        if (!self) {
            co_return;
        }
        self->grant_ = grant;
        emit self->signInChanged();
        self->open(grant.verificationURL);
        const MemberSession session = co_await login.signIn(grant, token);
        if (!self) {
            co_return;
        }
        if (self->keychain_.save(session, host) == SessionKeychain::Kept::forThisRunOnly) {
            self->sessionNotKept_ = true;
        }
        self->member_ = session;
        self->grant_.reset();
        self->services_.defaults->set(meetBaseURLKey, self->baseURL_);
        self->signingIn_ = false;
        emit self->memberChanged();
        emit self->signInChanged();
        if (onSuccess) {
            onSuccess();
        }
        spawn([self]() -> Task<void> {
            if (self) {
                co_await self->resumeAfterSignIn();
            }
        });
    } catch (...) {
        const std::exception_ptr failure = std::current_exception();
        if (!self) {
            co_return;
        }
        if (!isCancellation(failure)) {
            ErrorPresentation lines;
            try {
                std::rethrow_exception(failure);
            } catch (const std::exception& error) {
                lines = ErrorPresentation::signInFailure(error, client.latestFailure());
            }
            self->setError(lines.humanLine, lines.detailLine);
            logLines(lines);
        }
        self->grant_.reset();
        self->signingIn_ = false;
        emit self->signInChanged();
    }
}

void AppModel::signInFromWindow(std::function<void()> onSuccess) {
    const QUrl typed(loginURL_, QUrl::StrictMode);
    if (!typed.isValid()) {
        present(std::make_exception_ptr(TesselError(u"Enter an HTTPS organisation URL."_s)));
        return;
    }
    Org chosen;
    try {
        chosen = Org::fromURL(loginURL_);
    } catch (...) {
        present(std::current_exception());
        return;
    }
    const QString meet = chosen.meetURL().toString();
    if (chosen.host != org() || meet != baseURL_) {
        if (!canChangeOrg()) {
            return;
        }
        baseURL_ = meet;
        changeOrganisation();
    }
    QPointer<AppModel> self(this);
    signIn([self, onSuccess = std::move(onSuccess)] {
        if (!self) {
            return;
        }
        try {
            self->orgStore_.select(self->org());
        } catch (...) {
            self->present(std::current_exception());
        }
        self->refreshOrgs();
        spawn([infra = self->infra_]() -> Task<void> { co_await infra->refresh(false); });
        if (onSuccess) {
            onSuccess();
        }
    });
}

void AppModel::cancelSignIn() {
    if (loginTask_) {
        loginTask_->cancel();
    }
    grant_.reset();
    emit signInChanged();
}

void AppModel::signOut() {
    if (capture_) {
        return;
    }
    try {
        keychain_.remove(org());
    } catch (...) {
        present(std::current_exception());
        return;
    }
    member_.reset();
    sessionNotKept_ = false;
    openCalls_.clear();
    pendingOpenCallStop_.reset();
    emit memberChanged();
    emit openCallsChanged();
}

Task<void> AppModel::resumeAfterSignIn() {
    QPointer<AppModel> self(this);
    setError(std::nullopt);
    if (const std::shared_ptr<CaptureSession> capture = capture_) {
        try {
            co_await capture->resumeAfterSignIn();
            if (!self) {
                co_return;
            }
            if (capture->state() == CaptureState::finished) {
                // A stop that waited for the sign-in is done: go where a stop
                // with the browser would have gone.
                finishCapture();
                openLobby();
            }
        } catch (...) {
            if (!self) {
                co_return;
            }
            presentCaptureFailure(std::current_exception());
            finishCapture();
        }
        co_return;
    }
    if (const auto pending = pendingOpenCallStop_) {
        co_await stopOpenCall(*pending, true);
        co_return;
    }
    co_await refreshOpenCalls();
}

MeetAPI AppModel::makeAPI() const {
    const QUrl url(baseURL_, QUrl::StrictMode);
    if (!url.isValid()) {
        throw TesselError(invalidAddressMessage);
    }
    return MeetAPI(services_.endpoints.requestURL(url), tokenProvider_, http_);
}

Task<bool> AppModel::start(QString title, QString counterpart, QString project, bool ack) {
    if (!canStartCapture()) {
        co_return false;
    }
    QPointer<AppModel> self(this);
    setError(std::nullopt);
    if (!member_ || member_->isExpired(services_.clock.wallClock())) {
        present(std::make_exception_ptr(
            HTTPFailure(401, u"No current member session"_s, u"unknown path"_s)));
        co_return false;
    }
    savedCallID_.reset();
    startingCapture_ = true;
    emit captureChanged();

    std::shared_ptr<CaptureSession> capture;
    std::exception_ptr failure;
    try {
        capture = std::make_shared<CaptureSession>(makeAPI(), services_.makeAudio,
                                                   services_.captureClock);
        setCapture(capture);
        co_await capture->start(title, counterpart, project, ack);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) {
        co_return false;
    }
    if (!failure) {
        startingCapture_ = false;
        emit captureChanged();
        co_return true;
    }
    presentCaptureFailure(failure);
    if (const auto* audio = failureAs<AudioCaptureError>(failure)) {
        permissionError_ = *audio;
    } else {
        permissionError_.reset();
    }
    emit errorChanged();
    // A start that reached the server stays to be stopped; one that only lost
    // its sign-in stays to be resumed; anything else leaves nothing behind.
    if (capture_ && capture_ == capture && !capture->meetingID() &&
        capture->state() != CaptureState::needsSignIn) {
        setCapture(nullptr);
    }
    startingCapture_ = false;
    emit captureChanged();
    co_return false;
}

void AppModel::presentCaptureFailure(const std::exception_ptr& error) {
    if (capture_ && capture_->state() == CaptureState::needsSignIn) {
        // The capture's own view shows the sign-in line.
        setError(std::nullopt);
        return;
    }
    if (capture_ && capture_->error()) {
        const QString human = *capture_->error();
        const QString details = capture_->errorDetails().value_or(linesOf(error).detailLine);
        setError(human, details);
        log::error(human);
        log::error(details);
        return;
    }
    present(error);
}

void AppModel::present(const std::exception_ptr& error) {
    ErrorPresentation lines = linesOf(error);
    if (failureAs<URLError>(error)) {
        if (const auto recorded = http_.latestFailure()) {
            lines = *recorded;
        }
    }
    error_ = lines.humanLine;
    errorDetails_ = lines.detailLine;
    logLines(lines);
    if (const auto* audio = failureAs<AudioCaptureError>(error)) {
        permissionError_ = *audio;
    } else {
        permissionError_.reset();
    }
    emit errorChanged();
}

Task<void> AppModel::stop(bool openBrowser) {
    QPointer<AppModel> self(this);
    if (const std::shared_ptr<CaptureSession> capture = capture_) {
        std::exception_ptr failure;
        try {
            co_await capture->stop();
        } catch (...) {
            failure = std::current_exception();
        }
        if (!self) {
            co_return;
        }
        if (failure) {
            // The browser stays closed and the words stay up.
            presentCaptureFailure(failure);
            finishCapture();
            co_return;
        }
    }
    finishCapture();
    setError(std::nullopt);
    if (openBrowser) {
        openLobby();
    }
}

void AppModel::finishCapture() {
    if (!capture_ || capture_->state() != CaptureState::finished) {
        return;
    }
    savedCallID_ = capture_->meetingID();
    std::erase_if(openCalls_, [&](const OpenCall& call) { return call.id == savedCallID_; });
    setCapture(nullptr);
    emit openCallsChanged();
}

void AppModel::clearCapture() {
    setCapture(nullptr);
    setError(std::nullopt);
}

Task<void> AppModel::refreshOpenCalls() {
    if (capture_ || !member_ || loadingOpenCalls_ || stoppingOpenCall_) {
        co_return;
    }
    QPointer<AppModel> self(this);
    loadingOpenCalls_ = true;
    emit openCallsChanged();
    const QString noted = baseURL_;
    std::exception_ptr failure;
    std::vector<OpenCall> calls;
    try {
        const MeetAPI api = makeAPI();
        calls = co_await api.liveTesselMeetings();
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) {
        co_return;
    }
    if (!failure) {
        // Dropped when the organisation, the capture or the member changed meanwhile.
        if (!capture_ && baseURL_ == noted && member_) {
            openCalls_ = std::move(calls);
            if (errorDetails_ == openCallsErrorDetails_) {
                setError(std::nullopt);
            }
            openCallsErrorDetails_.reset();
        }
    } else if (!isCancellation(failure) && baseURL_ == noted && !capture_) {
        std::optional<ErrorPresentation> diagnostic;
        if (failureAs<URLError>(failure)) {
            diagnostic = http_.latestFailure();
        }
        ErrorPresentation lines;
        try {
            std::rethrow_exception(failure);
        } catch (const std::exception& error) {
            lines = OpenCall::refreshFailure(error, diagnostic);
        }
        setError(lines.humanLine, lines.detailLine);
        // The HTTP client has written the line of every refusal and transport
        // failure it saw; only what failed beyond it is logged here.
        if (!failureAs<HTTPFailure>(failure) && !failureAs<URLError>(failure)) {
            logLines(lines);
        }
        openCallsErrorDetails_ = errorDetails_;
    }
    loadingOpenCalls_ = false;
    emit openCallsChanged();
}

Task<void> AppModel::stopOpenCall(QString id, bool openBrowser) {
    if (capture_ || stoppingOpenCall_) {
        co_return;
    }
    QPointer<AppModel> self(this);
    stoppingOpenCall_ = id;
    emit openCallsChanged();
    setError(std::nullopt);
    std::exception_ptr failure;
    try {
        const MeetAPI api = makeAPI();
        co_await api.stopOpenCall(id);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) {
        co_return;
    }
    if (!failure) {
        pendingOpenCallStop_.reset();
        std::erase_if(openCalls_, [&](const OpenCall& call) { return call.id == id; });
        if (openBrowser) {
            openLobby();
        } else {
            savedCallID_ = id;
            emit captureChanged();
        }
    } else {
        const auto* http = failureAs<HTTPFailure>(failure);
        if (http && http->needsSignIn()) {
            // Runs by itself after the next sign-in.
            pendingOpenCallStop_ = id;
        }
        present(failure);
        if (http && http->status == 409) {
            // The server says the call is already stopped: list again.
            stoppingOpenCall_.reset();
            co_await refreshOpenCalls();
            if (!self) {
                co_return;
            }
        }
    }
    stoppingOpenCall_.reset();
    emit openCallsChanged();
}

QUrl AppModel::meetURL(const QString& component) const {
    QUrl url(baseURL_, QUrl::StrictMode);
    if (!url.isValid()) {
        return {};
    }
    QString path = url.path();
    if (!path.endsWith(u'/')) {
        path += u'/';
    }
    url.setPath(path + component);
    return services_.endpoints.requestURL(url);
}

void AppModel::open(const QUrl& url) const {
    if (url.isValid() && !url.isEmpty() && services_.openURL) {
        services_.openURL(url);
    }
}

void AppModel::openLobby() const {
    open(meetURL({}));
}

void AppModel::openCall(const QString& id) const {
    open(meetURL(id));
}

void AppModel::openNotes() const {
    if (capture_ && capture_->meetingID()) {
        openCall(*capture_->meetingID());
    }
}

} // namespace tessel
