#include "identity/OrgStore.h"

#include "errors/Failures.h"

#include <QUrl>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

const QString currentKey = u"currentOrgHost"_s;
const QString meetKey = u"meetBaseURL"_s;

std::optional<QString> hostOf(const QString& text) {
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty()) {
        return std::nullopt;
    }
    return url.host();
}

std::optional<Org> orgOf(const QString& host) {
    try {
        return Org::fromHost(host);
    } catch (const TesselError&) {
        return std::nullopt;
    }
}

} // namespace

OrgStore::OrgStore(std::shared_ptr<UserDefaults> defaults, const QString& baseURL,
                   SessionHosts sessionHosts, const QString& defaultOrgHost)
    : defaults_(std::move(defaults)), sessionHosts_(std::move(sessionHosts)),
      current_(Org::fromHost(defaultOrgHost)) {
    // Older versions kept only the meet URL; its host is the selection then.
    const auto noted = hostOf(defaults_->string(meetKey).value_or(baseURL));
    const auto stored = defaults_->string(currentKey);
    const QString wanted = stored ? *stored : noted.value_or(defaultOrgHost);
    if (const auto org = orgOf(wanted)) {
        current_ = *org;
    }
    defaults_->set(currentKey, current_.host);
}

std::vector<Org> OrgStore::known(const std::optional<QString>& baseURL) const {
    const QString extra = (baseURL ? hostOf(*baseURL) : std::nullopt).value_or(current_.host);
    QStringList hosts = sessionHosts_();
    hosts << extra;
    hosts.removeDuplicates();
    std::vector<Org> out;
    for (const QString& host : hosts) {
        if (auto org = orgOf(host)) {
            out.push_back(std::move(*org));
        }
    }
    std::sort(out.begin(), out.end(), [](const Org& a, const Org& b) { return a.host < b.host; });
    // Two stored spellings of one host come out as one organisation.
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

Org OrgStore::select(const QString& host, const std::function<void(const Org&)>& apply) {
    Org org = Org::fromHost(host);
    current_ = org;
    defaults_->set(currentKey, org.host);
    defaults_->set(meetKey, org.meetURL().toString());
    if (apply) {
        apply(org);
    }
    return org;
}

void OrgStore::add(const QString& url, const std::function<void(const Org&)>& signIn) const {
    signIn(Org::fromURL(url));
}

} // namespace tessel
