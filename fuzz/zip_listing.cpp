// zipinfo's listing of a downloaded archive, and the checks on what it names.
#include "FuzzInput.h"

#include "apps/ZipAppInstaller.h"

using namespace tessel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<ZipAppInstaller::ListedEntry> listed;
    try {
        listed = ZipAppInstaller::parseListing(fuzz::text(data, size));
    } catch (const TesselError&) {
        return 0;
    }
    QStringList names;
    for (const auto& entry : listed) {
        FUZZ_CHECK(!entry.name.isEmpty() && !entry.type.isSpace());
        if (ZipAppInstaller::staysInside(entry.name)) {
            names << entry.name;
        }
    }
    for (const QString& name : ZipAppInstaller::applicationNames(names)) {
        FUZZ_CHECK(name.endsWith(QLatin1String(".app")));
    }
    return 0;
}
