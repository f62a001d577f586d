// Library and sound-server statuses as failures in the system's words.
#pragma once

#include <QString>

namespace tessel {

// 0 passes; any other status (of the sound server or of FFmpeg) throws
// TesselError "<what> failed (audio status <status>) — …" with the status as a
// signed number.
void checkAudio(int status, const QString& what);

} // namespace tessel
