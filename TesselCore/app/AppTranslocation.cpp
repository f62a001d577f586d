#include "app/AppTranslocation.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace tessel {

bool AppTranslocation::isTranslocated(const QString& executablePath) {
    return executablePath.contains(QLatin1String(marker));
}

std::optional<QUrl> AppTranslocation::originalURL(const QUrl& url, const Lookup& lookup) {
    const auto original = lookup ? lookup(url) : std::nullopt;
    if (!original || !original->isLocalFile()) {
        return std::nullopt;
    }
    const QString path = original->toLocalFile();
    if (isTranslocated(path) || !QFileInfo::exists(path)) {
        return std::nullopt;
    }
    return original;
}

void AppTranslocation::revealOriginal(const QUrl& executable,
                                      const std::function<void(const QUrl&)>& open,
                                      const Lookup& lookup) {
    if (const auto original = originalURL(executable, lookup)) {
        open(QUrl::fromLocalFile(QFileInfo(original->toLocalFile()).absolutePath()));
        return;
    }
    open(QUrl::fromLocalFile(QStandardPaths::writableLocation(QStandardPaths::DownloadLocation)));
}

} // namespace tessel
