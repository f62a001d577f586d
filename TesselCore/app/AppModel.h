// The root model of the tray application: which organisation is chosen, who is
// signed in to it, the one capture that may run, and the calls still open on
// the server. It decides when sign-in, capture and server calls run and what a
// person sees when they fail; the work itself is theirs. Main thread; its
// background tasks hold it weakly.
//
// Models that come later attach through the small interfaces of
// AppServices.h, so that they land without changes here.
#pragma once

#include "app/AppServices.h"
#include "app/UpdateController.h"
#include "capture/CaptureSession.h"
#include "identity/DeviceLogin.h"
#include "identity/Endpoints.h"
#include "identity/OrgStore.h"
#include "identity/SessionKeychain.h"

#include <QObject>
#include <QPointer>

#include <memory>
#include <optional>
#include <vector>

namespace tessel {

class AppModel : public QObject {
    Q_OBJECT

public:
    struct Services {
        Endpoints endpoints;
        std::shared_ptr<UserDefaults> defaults;
        std::shared_ptr<const SecureStore> secureStore;
        // The transport of every request made here; it carries the endpoints' certificate.
        std::shared_ptr<HTTPSession> httpSession;
        CaptureSession::MakeAudio makeAudio;
        CaptureClock captureClock;
        // Sign-in polling, the expiry of a member, the short waits of this model.
        SignInClock clock;
        OpenURL openURL;
        std::unique_ptr<UpdateEngine> updateEngine;
        std::shared_ptr<InfraRefresher> infra;
    };

    static const QString invalidAddressMessage;
    static const QString clientName; // "velmora-tessel"

    // With `startingServices` the member is read from the keyring, the
    // organisations are listed and open calls are looked for; without it
    // nothing outside the model is touched.
    AppModel(Services services, bool startingServices, QObject* parent = nullptr);
    ~AppModel() override;

    // Observable, each group through its own signal below, so that a view
    // updates what it shows of that group alone.
    const QString& baseURL() const { return baseURL_; }
    const std::vector<Org>& knownOrgs() const { return knownOrgs_; }
    const QString& loginURL() const { return loginURL_; }
    void setLoginURL(const QString& url);
    const std::optional<MemberSession>& member() const { return member_; }
    CaptureSession* capture() const { return capture_.get(); }
    const std::optional<QString>& savedCallID() const { return savedCallID_; }
    const std::vector<OpenCall>& openCalls() const { return openCalls_; }
    bool loadingOpenCalls() const { return loadingOpenCalls_; }
    const std::optional<QString>& stoppingOpenCall() const { return stoppingOpenCall_; }
    const std::optional<QString>& error() const { return error_; }
    const std::optional<QString>& errorDetails() const { return errorDetails_; }
    const std::optional<AudioCaptureError>& permissionError() const { return permissionError_; }
    const std::optional<DeviceGrant>& grant() const { return grant_; }
    bool signingIn() const { return signingIn_; }
    bool startingCapture() const { return startingCapture_; }
    // A sign-in of this run lives only in memory: no keyring service runs.
    bool sessionNotKept() const { return sessionNotKept_; }
    static const QString sessionNotKeptMessage;

    // Not observable.
    const std::optional<QString>& pendingOpenCallStop() const { return pendingOpenCallStop_; }
    OrgStore& orgStore() { return orgStore_; }
    UpdateController& updates() { return *updates_; }
    InfraRefresher& infra() { return *infra_; }
    const Endpoints& endpoints() const { return services_.endpoints; }
    const HTTPClient& http() const { return http_; }
    // Shares this model's memory of the sessions of this run.
    const SessionKeychain& keychain() const { return keychain_; }
    // The selected organisation's token, read from the keyring at each call.
    const TokenProvider& tokenProvider() const { return tokenProvider_; }

    // The host of `baseURL`, or "organisation".
    QString org() const;
    QString inboxURL() const;
    bool canChangeOrg() const;
    bool canStartCapture() const;

    void selectOrg(const QString& host);
    void refreshOrgs();
    void changeOrganisation();

    void signIn(std::function<void()> onSuccess = {});
    void signInFromWindow(std::function<void()> onSuccess = {});
    // Ends a running sign-in: the sign-in window's Cancel, or the window closed.
    void cancelSignIn();
    void signOut();

    Task<bool> start(QString title, QString counterpart, QString project, bool ack);
    Task<void> stop(bool openBrowser);
    // The way out of a capture that is over or can't be stopped.
    void clearCapture();

    Task<void> refreshOpenCalls();
    Task<void> stopOpenCall(QString id, bool openBrowser);
    Task<void> resumeAfterSignIn();

    void openLobby() const;
    void openCall(const QString& id) const;
    void openNotes() const;

    void present(const std::exception_ptr& error);

signals:
    // baseURL, knownOrgs, loginURL.
    void organisationChanged();
    // member, sessionNotKept.
    void memberChanged();
    // grant, signingIn.
    void signInChanged();
    // capture (which session is held), startingCapture, savedCallID. The held
    // session tells its own changes through CaptureSession::changed.
    void captureChanged();
    // openCalls, loadingOpenCalls, stoppingOpenCall.
    void openCallsChanged();
    // error, errorDetails, permissionError.
    void errorChanged();

private:
    void setError(std::optional<QString> error, std::optional<QString> details = std::nullopt);
    void setCapture(std::shared_ptr<CaptureSession> capture);
    void configureTokenProvider();
    void presentCaptureFailure(const std::exception_ptr& error);
    void finishCapture();
    MeetAPI makeAPI() const;
    void open(const QUrl& url) const;
    QUrl meetURL(const QString& component) const;
    static Task<void> runSignIn(QPointer<AppModel> self, QString host,
                                std::function<void()> onSuccess, CancellationToken token);

    Services services_;
    SessionKeychain keychain_;
    HTTPClient http_;
    OrgStore orgStore_;
    std::shared_ptr<InfraRefresher> infra_;
    std::unique_ptr<UpdateController> updates_;

    QString baseURL_;
    std::vector<Org> knownOrgs_;
    QString loginURL_;
    std::optional<MemberSession> member_;
    std::shared_ptr<CaptureSession> capture_;
    std::optional<QString> savedCallID_;
    std::vector<OpenCall> openCalls_;
    bool loadingOpenCalls_ = false;
    std::optional<QString> stoppingOpenCall_;
    std::optional<QString> pendingOpenCallStop_;
    std::optional<QString> openCallsErrorDetails_;
    TokenProvider tokenProvider_;
    std::optional<QString> error_;
    std::optional<QString> errorDetails_;
    std::optional<AudioCaptureError> permissionError_;
    std::optional<DeviceGrant> grant_;
    bool signingIn_ = false;
    bool startingCapture_ = false;
    bool sessionNotKept_ = false;
    std::shared_ptr<BackgroundTask> loginTask_;
};

} // namespace tessel
