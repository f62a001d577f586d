#include "identity/Endpoints.h"

#include "errors/Failures.h"
#include "identity/Org.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <nlohmann/json.hpp>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <array>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

// True when `pem` begins a readable X.509 certificate in PEM form.
bool holdsCertificate(const QByteArray& pem) {
    BIO* bio = BIO_new_mem_buf(pem.constData(), static_cast<int>(pem.size()));
    X509* certificate = bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr;
    const bool found = certificate != nullptr;
    X509_free(certificate);
    BIO_free(bio);
    return found;
}

using nlohmann::json;

const std::array<const char*, 6> keys = {"default_org_host", "org_origin",
                                         "auth_service_url", "notify_service_url",
                                         "update_feed_url",  "ca_file"};

// An absolute http(s) URL with a host, or none.
std::optional<QUrl> serviceURL(const QString& text) {
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || (url.scheme() != u"https"_s && url.scheme() != u"http"_s) ||
        url.host().isEmpty()) {
        return std::nullopt;
    }
    return url;
}

} // namespace

Endpoints Endpoints::production() {
    // The one place the product's own addresses are written down.
    return Endpoints{
        u"velmora.ai"_s,
        QUrl(u"https://auth.velmora.ai"_s),
        QUrl(u"https://notify.velmora.ai"_s),
        QUrl(u"https://velmora.ai/docs/conductor/runbook"_s),
        QUrl(u"https://velmora.ai/downloads/tessel/linux/feed.json"_s),
        std::nullopt,
        QString(),
    };
}

namespace {

TesselError endpointsFailure(const QString& path, const QString& problem) {
    return TesselError(
        u"%1 file %2: %3."_s.arg(QLatin1String(Endpoints::environmentVariable), path, problem));
}

} // namespace

Endpoints Endpoints::load(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        throw endpointsFailure(path, u"cannot be read (%1)"_s.arg(file.errorString()));
    }
    return decode(file.readAll(), path);
}

Endpoints Endpoints::decode(const QByteArray& bytes, const QString& path) {
    const auto fail = [&](const QString& problem) { return endpointsFailure(path, problem); };
    json document;
    try {
        document = json::parse(bytes.constData(), bytes.constData() + bytes.size());
    } catch (const json::exception& error) {
        // A syntax error or a number out of range, without nlohmann's
        // "[json.exception.parse_error.101] " prefix.
        const QString what = QString::fromUtf8(error.what());
        throw fail(u"is not JSON (%1)"_s.arg(what.mid(what.indexOf(u"] "_s) + 2)));
    }
    if (!document.is_object()) {
        throw fail(u"must hold one JSON object"_s);
    }
    QStringList known;
    for (const char* key : keys) {
        known << QString::fromLatin1(key);
    }
    for (const auto& [key, value] : document.items()) {
        if (!known.contains(QString::fromStdString(key))) {
            throw fail(u"unknown key \"%1\" (known: %2)"_s.arg(QString::fromStdString(key),
                                                               known.join(u", "_s)));
        }
        if (!value.is_string()) {
            throw fail(u"%1 must be a text"_s.arg(QString::fromStdString(key)));
        }
    }
    const auto text = [&](const char* key) -> std::optional<QString> {
        if (!document.contains(key)) {
            return std::nullopt;
        }
        return QString::fromStdString(document[key].get<std::string>());
    };
    const auto url = [&](const char* key, QUrl& target) {
        if (const auto value = text(key)) {
            const auto parsed = serviceURL(*value);
            if (!parsed) {
                throw fail(u"%1 must be an absolute http or https URL, not \"%2\""_s.arg(
                    QString::fromLatin1(key), *value));
            }
            target = *parsed;
        }
    };

    Endpoints out = production();
    if (const auto host = text("default_org_host")) {
        try {
            out.defaultOrgHost = Org::fromHost(*host).host;
        } catch (const TesselError&) {
            throw fail(u"default_org_host \"%1\" is not a valid organisation host"_s.arg(*host));
        }
    }
    url("auth_service_url", out.authServiceURL);
    url("notify_service_url", out.notifyServiceURL);
    url("update_feed_url", out.updateFeedURL);
    if (const auto origin = text("org_origin")) {
        const auto parsed = serviceURL(*origin);
        if (!parsed || !(parsed->path().isEmpty() || parsed->path() == u"/"_s) ||
            parsed->hasQuery() || parsed->hasFragment() || !parsed->userInfo().isEmpty()) {
            throw fail(u"org_origin must be a scheme, a host and a port only, like "
                       u"https://127.0.0.1:8443, not \"%1\""_s.arg(*origin));
        }
        out.orgOrigin = parsed->adjusted(QUrl::StripTrailingSlash);
    }
    if (const auto ca = text("ca_file")) {
        // A relative path is read beside the endpoints file.
        const QString resolved = QFileInfo(QFileInfo(path).absoluteDir(), *ca).absoluteFilePath();
        // Only a plain file: reading a device or a pipe may never end.
        if (const QFileInfo info(resolved); info.exists() && !info.isFile()) {
            throw fail(u"ca_file %1 is not a file"_s.arg(resolved));
        }
        QFile certificate(resolved);
        if (!certificate.open(QIODevice::ReadOnly)) {
            throw fail(
                u"ca_file %1 cannot be read (%2)"_s.arg(resolved, certificate.errorString()));
        }
        if (!holdsCertificate(certificate.readAll())) {
            throw fail(u"ca_file %1 holds no PEM certificate"_s.arg(resolved));
        }
        out.caFile = resolved;
    }
    return out;
}

Endpoints Endpoints::fromEnvironment(const std::function<QString(const char*)>& getenv) {
    const QString path = getenv(environmentVariable);
    return path.isEmpty() ? production() : load(path);
}

Endpoints Endpoints::fromEnvironment() {
    return fromEnvironment([](const char* name) { return qEnvironmentVariable(name); });
}

QUrl Endpoints::requestURL(const QUrl& organisationURL) const {
    if (!orgOrigin) {
        return organisationURL;
    }
    QUrl out = organisationURL;
    out.setScheme(orgOrigin->scheme());
    out.setHost(orgOrigin->host());
    out.setPort(orgOrigin->port());
    return out;
}

HTTPSession::Options Endpoints::httpOptions() const {
    HTTPSession::Options options;
    options.caFile = caFile;
    return options;
}

} // namespace tessel
