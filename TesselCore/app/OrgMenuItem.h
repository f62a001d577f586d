// The rows of the organisation menu as plain data: the known organisations
// (the current one checked), "Add organisation…" and "Sign out of <name>".
#pragma once

#include "identity/Org.h"

#include <variant>
#include <vector>

namespace tessel {

struct OrgMenuItem {
    struct Select {
        QString host;
        bool operator==(const Select&) const = default;
    };
    struct Add {
        bool operator==(const Add&) const = default;
    };
    struct SignOut {
        bool operator==(const SignOut&) const = default;
    };
    using Action = std::variant<Select, Add, SignOut>;

    QString id; // the host, "add" or "sign-out"
    QString title;
    bool checked = false;
    Action action;

    bool operator==(const OrgMenuItem&) const = default;

    static std::vector<OrgMenuItem> items(const std::vector<Org>& known, const Org& current);
};

} // namespace tessel
