// The set-up's progress lines from `velmora-conductor-onboard setup --json`:
// each line decoded as a step, and shown only with the secrets taken out.
#include "FuzzInput.h"

#include "infra/ConductorSetup.h"

using namespace tessel;
using namespace Qt::StringLiterals;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Redactor redact({{ConductorSecret::serviceToken, u"svc \"quoted\" é-0123456789"_s},
                                  {ConductorSecret::v2Key, u"v2-\\key/🔑"_s},
                                  {ConductorSecret::tunnelID, u"tun-42"_s}});
    for (const QString& line : fuzz::text(data, size).split(u'\n')) {
        try {
            const ConductorStep step = ConductorStep::decode(line);
            (void)ConductorStep::nameText(step.step);
            FUZZ_CHECK(!redact.reveals(redact(step.detail)));
        } catch (const DecodingError&) {
        }
        FUZZ_CHECK(!redact.reveals(redact(line)));
    }
    return 0;
}
