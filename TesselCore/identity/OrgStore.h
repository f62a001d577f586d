// Which organisation is selected, and which are known. The known ones are the
// hosts with a stored session plus the selected one: the keyring is the list,
// there is no second one to keep in step. Lives on the main thread.
#pragma once

#include "identity/Org.h"
#include "identity/UserDefaults.h"

#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tessel {

class OrgStore {
public:
    // The hosts with a stored session; the program passes SessionKeychain::hosts.
    using SessionHosts = std::function<QStringList()>;

    // Reads the selection: `currentOrgHost`, else the host of the stored
    // `meetBaseURL` (or of `baseURL`, the default meet URL), else
    // `defaultOrgHost`; an invalid host falls back to `defaultOrgHost`. The
    // choice is written to `currentOrgHost` at once.
    OrgStore(std::shared_ptr<UserDefaults> defaults, const QString& baseURL,
             SessionHosts sessionHosts, const QString& defaultOrgHost);

    const Org& current() const { return current_; }

    // Sorted by host, the selected one (or the host of `baseURL`) always among
    // them; invalid stored hosts are left out. A keyring failure is passed on.
    std::vector<Org> known(const std::optional<QString>& baseURL = std::nullopt) const;

    // Makes `host` the selection and stores it with its meet URL; a bad host
    // throws and changes nothing. `apply` receives the new organisation.
    Org select(const QString& host, const std::function<void(const Org&)>& apply = {});

    // Validates a typed address and hands it to `signIn`; stores nothing: an
    // organisation becomes known once a session is saved for it.
    void add(const QString& url, const std::function<void(const Org&)>& signIn) const;

private:
    std::shared_ptr<UserDefaults> defaults_;
    SessionHosts sessionHosts_;
    Org current_;
};

} // namespace tessel
