#include "app/OrgMenuItem.h"

namespace tessel {

std::vector<OrgMenuItem> OrgMenuItem::items(const std::vector<Org>& known, const Org& current) {
    std::vector<OrgMenuItem> rows;
    rows.reserve(known.size() + 2);
    for (const Org& org : known) {
        // The same host under another name is another organisation here.
        rows.push_back({org.host, org.name, org == current, Select{org.host}});
    }
    rows.push_back({QStringLiteral("add"), QStringLiteral("Add organisation…"), false, Add{}});
    rows.push_back({QStringLiteral("sign-out"), QStringLiteral("Sign out of ") + current.name,
                    false, SignOut{}});
    return rows;
}

} // namespace tessel
