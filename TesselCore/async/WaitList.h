// Callers parked until the one running operation of a serialised object ends:
// `wait()` suspends, `wakeAll()` resumes every parked caller in the order they
// came, each of which then tests its condition again.
#pragma once

#include "async/Async.h"

#include <memory>
#include <vector>

namespace tessel {

class WaitList {
public:
    WaitList() = default;
    WaitList(const WaitList&) = delete;
    WaitList& operator=(const WaitList&) = delete;

    // Ends at the next `wakeAll()`. A cancelled token ends it at once with
    // `Cancelled`, and the caller leaves the list.
    Task<void> wait(CancellationToken token = {});
    // Resumptions are posted to the loop, so a woken caller never runs inside
    // the code that woke it.
    void wakeAll();
    bool empty() const { return entries_.empty(); }

    struct Entry;

private:
    std::vector<std::shared_ptr<Entry>> entries_;
    QObject context_;
};

} // namespace tessel
