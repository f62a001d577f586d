// The endpoints file that VELMORA_TESSEL_ENDPOINTS names, and the addresses
// the program then requests.
#include "FuzzInput.h"

#include "identity/Endpoints.h"

using namespace tessel;
using namespace Qt::StringLiterals;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Endpoints endpoints;
    try {
        // A folder that doesn't exist: a relative ca_file names nothing.
        endpoints = Endpoints::decode(fuzz::bytes(data, size), u"/nonexistent/endpoints.json"_s);
    } catch (const TesselError&) {
        return 0;
    }
    const QUrl organisation(u"https://acme.velmora.ai/meet"_s);
    const QUrl request = endpoints.requestURL(organisation);
    FUZZ_CHECK(request.path() == organisation.path());
    (void)endpoints.httpOptions();
    return 0;
}
