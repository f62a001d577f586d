// The sibling applications as this program launches them: the registry, the
// desktop's launcher, archives downloaded through the program's HTTP session,
// and a session handoff read from the keyring.
#pragma once

#include "apps/AppsModel.h"
#include "identity/SessionKeychain.h"
#include "net/HTTPClient.h"

#include <memory>

namespace tessel::app {

// Without the organisation, the Meet row's override and the dismissal, which
// the popover adds.
AppsModel::Options appOptions(const QString& defaultOrgHost, const SessionKeychain& keychain,
                              const HTTPClient& http);

} // namespace tessel::app
