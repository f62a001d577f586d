#include "ui/RebuildLater.h"

#include <QTimer>

namespace tessel::app {

void RebuildLater::request() {
    if (pending_) {
        return;
    }
    pending_ = true;
    QTimer::singleShot(0, owner_, [this] {
        pending_ = false;
        rebuild_();
    });
}

} // namespace tessel::app
