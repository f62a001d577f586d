// The program's version as people read it, from the build's own version.
#pragma once

#include <QString>
#include <QVariantMap>

#include <optional>

namespace tessel {

struct AppVersion {
    // The build's "version" entry, or "dev".
    static QString shortVersion();
    // `info`'s "version" when it is a text with more than blanks, kept as it
    // is; "dev" for anything else, also with no map.
    static QString shortVersion(const std::optional<QVariantMap>& info);
    // "Velmora " and the short version.
    static QString label();
    // What the build says about itself: {"version": the project's version}.
    static QVariantMap buildInfo();
};

} // namespace tessel
