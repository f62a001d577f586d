// The small interfaces by which the application model reaches the platform and
// the models that live beside it. Each later model plugs in here without a
// change to AppModel.
#pragma once

#include "async/Async.h"

#include <QUrl>

#include <functional>

namespace tessel {

// Opens a URL in the desktop's default handler (the browser for web pages).
using OpenURL = std::function<void(const QUrl&)>;

// The local infrastructure of the selected organisation: refreshed when the
// organisation changes and when the popover asks. Never fails to its caller.
class InfraRefresher {
public:
    virtual ~InfraRefresher() = default;
    virtual Task<void> refresh(bool force) = 0;
};

// No infrastructure to show.
class NoInfra : public InfraRefresher {
public:
    Task<void> refresh(bool) override { co_return; }
};

} // namespace tessel
