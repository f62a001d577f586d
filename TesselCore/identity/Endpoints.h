// Where the program finds its services. Built once at start: the production
// values below, or a JSON file named by VELMORA_TESSEL_ENDPOINTS that
// overrides some of them, to run against a local server:
//   {"default_org_host", "org_origin", "auth_service_url",
//    "notify_service_url", "update_feed_url", "ca_file"}, every key optional.
// `org_origin` (say "https://127.0.0.1:8443") replaces scheme, host and port of
// every organisation URL the program requests, while the organisation keeps
// its host for its name, its keyring item and the menu. `ca_file` is one extra
// certificate (PEM) the transport trusts.
#pragma once

#include "net/HTTPClient.h"

#include <QString>
#include <QUrl>

#include <functional>
#include <optional>

namespace tessel {

struct Endpoints {
    QString defaultOrgHost;
    QUrl authServiceURL;
    QUrl notifyServiceURL;
    QUrl conductorRunbookURL;
    QUrl updateFeedURL;
    std::optional<QUrl> orgOrigin;
    QString caFile; // empty: only the system's certificates

    static constexpr const char* environmentVariable = "VELMORA_TESSEL_ENDPOINTS";

    // The services of the product.
    static Endpoints production();
    // The production values overridden by the file; throws TesselError with one
    // line naming the file and what is wrong with it.
    static Endpoints load(const QString& path);
    // The same for the file's bytes; `path` names it in the words and places a
    // relative ca_file.
    static Endpoints decode(const QByteArray& bytes, const QString& path);
    // `load` of the file VELMORA_TESSEL_ENDPOINTS names, else `production`.
    static Endpoints fromEnvironment(const std::function<QString(const char*)>& getenv);
    static Endpoints fromEnvironment();

    // The URL a request for an organisation address really goes to.
    QUrl requestURL(const QUrl& organisationURL) const;
    // The transport's settings: the extra certificate, when there is one.
    HTTPSession::Options httpOptions() const;

    bool operator==(const Endpoints&) const = default;
};

} // namespace tessel
