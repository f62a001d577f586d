// The failure types as plain std::exceptions and the words of the audio failures.
#include "errors/Failures.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace tessel;
using namespace Qt::StringLiterals;

namespace {

TEST(FailuresTest, WhatIsTheDescriptionInUTF8) {
    try {
        throw TesselError(u"Ça marche — presque."_s);
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "\xc3\x87"
                                   "a marche \xe2\x80\x94 presque.");
        // Asked twice, the same storage answers.
        EXPECT_EQ(error.what(), error.what());
    }
    EXPECT_STREQ(TesselError(QString()).what(), "");
}

TEST(FailuresTest, SystemAudioFailureCarriesItsReason) {
    const auto failure = AudioCaptureError::systemAudioStartFailed(u"No monitor source."_s);
    EXPECT_EQ(failure.description(),
              u"System audio capture could not start: No monitor source. Open System Settings → "
              u"Privacy & Security → Screen & System Audio Recording, enable Velmora Tessel under "
              u"System Audio Recording, then quit and reopen the app."_s);
    EXPECT_NE(failure.settingsURL(), AudioCaptureError::microphonePermissionDenied().settingsURL());
}

} // namespace
