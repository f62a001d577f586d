// The update feed: {"version", "url", "sha256", "notes"}.
#include "FuzzInput.h"

#include "app/FeedUpdateEngine.h"

using namespace tessel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const UpdateFeedEntry entry = UpdateFeedEntry::fromJSON(fuzz::bytes(data, size));
        FUZZ_CHECK(entry.sha256.size() == 64 && entry.url.isValid());
        (void)isNewerVersion(entry.version, QStringLiteral("0.1.0"));
    } catch (const Failure&) {
    }
    return 0;
}
