// `velmora-conductor-onboard status --json`: the report, each organisation's
// row as the infrastructure view reads it, and the address it may open.
#include "FuzzInput.h"

#include "infra/InfraStatus.h"

using namespace tessel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QByteArray bytes = fuzz::bytes(data, size);
    (void)InfraCLI::webURL(QString::fromUtf8(bytes));
    InfraStatus status;
    try {
        status = InfraStatus::decode(bytes);
    } catch (const DecodingError&) {
        return 0;
    }
    (void)status.supervisor.humanLine();
    for (const InfraStatus::Organisation& org : status.orgs) {
        (void)status.organisation(QUrl(org.orgURL).host());
        (void)org.managementHelp();
        if (const auto url = org.openURL()) {
            const QString scheme = url->scheme();
            FUZZ_CHECK(scheme == QLatin1String("http") || scheme == QLatin1String("https"));
        }
    }
    return 0;
}
