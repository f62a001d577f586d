// A program started from a quarantined, unmoved download runs from a hidden,
// changing path and loses its audio permissions at each start. Linux has no
// such place: the lookup of the original gives none, so the warning never
// shows; the rule stays in one place should a platform need it.
#pragma once

#include <QUrl>

#include <functional>
#include <optional>

namespace tessel {

struct AppTranslocation {
    static constexpr const char* marker = "/AppTranslocation/";

    // Whether the program runs from a translocated path.
    static bool isTranslocated(const QString& executablePath);

    // The platform's lookup of where a translocated copy came from.
    using Lookup = std::function<std::optional<QUrl>(const QUrl&)>;
    static std::optional<QUrl> noLookup(const QUrl&) { return std::nullopt; }

    // The original, when the lookup gives a local file outside any translocated
    // path that exists; none in every other case.
    static std::optional<QUrl> originalURL(const QUrl& url, const Lookup& lookup = noLookup);

    // Shows the original in the file manager, or the Downloads folder.
    static void revealOriginal(const QUrl& executable, const std::function<void(const QUrl&)>& open,
                               const Lookup& lookup = noLookup);
};

} // namespace tessel
