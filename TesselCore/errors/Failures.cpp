#include "errors/Failures.h"

#include <mutex>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {
// One failure may be rethrown on several threads; the cache is filled once under
// this lock and never changed after, so the returned pointer stays valid.
std::mutex whatMutex;
} // namespace

const char* Failure::what() const noexcept {
    std::lock_guard lock(whatMutex);
    if (whatCache_.isNull()) {
        try {
            whatCache_ = description().toUtf8();
        } catch (...) {
            // what() must not throw; an empty text is better than terminating.
        }
        if (whatCache_.isNull()) {
            whatCache_ = QByteArray("");
        }
    }
    return whatCache_.constData();
}

QString AudioCaptureError::description() const {
    switch (kind_) {
    case Kind::systemAudioStartFailed:
        return u"System audio capture could not start: "_s + reason_ +
               u" The call's sound is recorded from the default output device's monitor on the "
               u"desktop session's sound server (PulseAudio or PipeWire)."_s;
    case Kind::microphonePermissionDenied:
        break;
    }
    return u"Microphone permission was refused — the sound server (PulseAudio or PipeWire) would "
           u"not let Velmora Tessel record; allow microphone access in the desktop's privacy or "
           u"sound settings, then start a new call."_s;
}

QString AudioCaptureError::settingsButtonTitle() const {
    // Both failures are settled in the same place: the desktop's sound settings.
    return u"Open sound settings"_s;
}

bool isCancellation(const std::exception_ptr& error) {
    return failureAs<Cancelled>(error) != nullptr;
}

QString describeFailure(const std::exception& error) {
    if (const auto* failure = dynamic_cast<const Failure*>(&error)) {
        return failure->description();
    }
    return QString::fromUtf8(error.what());
}

QString describeFailure(const std::exception_ptr& error, const QString& unknown) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& thrown) {
        return describeFailure(thrown);
    } catch (...) {
        return unknown;
    }
}

} // namespace tessel
