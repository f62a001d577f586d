#include "audio/CheckAudio.h"

#include "errors/Failures.h"

using namespace Qt::StringLiterals;

namespace tessel {

void checkAudio(int status, const QString& what) {
    if (status == 0) {
        return;
    }
    throw TesselError(u"%1 failed (audio status %2) — check the selected audio device and "
                      u"permissions, then start a new call."_s.arg(what)
                          .arg(status));
}

} // namespace tessel
