// From a thrown failure to the sentence a person reads and the line the log keeps.
#include "audio/CheckAudio.h"
#include "errors/ErrorPresentation.h"
#include "errors/Failures.h"
#include "net/HTTPFailure.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace tessel;
using namespace Qt::StringLiterals;

namespace {

const QString genericLine = u"Something went wrong. Try again; details are below."_s;
const QString audioLine = u"Audio could not be recorded — check your audio device and "
                          u"permissions, then start a new call."_s;

template <typename Error> std::exception_ptr thrown(Error error) {
    return std::make_exception_ptr(std::move(error));
}

std::exception_ptr own(const QString& message) {
    return thrown(TesselError(message));
}

// A sound server's refusal in the words the audio side gives it.
std::exception_ptr soundServerStatus() {
    try {
        checkAudio(6, u"Connecting to the sound server"_s);
    } catch (...) {
        return std::current_exception();
    }
    return {};
}

TEST(ErrorPresentationTest, HumanLineComesFromTheFirstRowThatFits) {
    const std::pair<std::exception_ptr, QString> cases[] = {
        {thrown(URLError(1, u"The keyring refused"_s)), HTTPFailure::serverUnavailableLine},
        {thrown(AudioCaptureError::systemAudioStartFailed(u"PCM format odd."_s)),
         u"System audio could not start — check that PulseAudio or PipeWire is running and "
         u"choose an output device in the desktop's sound settings, then start a new call."_s},
        {thrown(DecodingError(u"AAC"_s)),
         u"The server sent an unexpected response. Try again; details are below."_s},
        {own(u"The keyring refused the item (-25293)."_s),
         u"Your saved sign-in could not be opened — unlock your login keyring (GNOME Keyring or "
         u"KWallet), allow Velmora Tessel access, and sign in again."_s},
        {own(u"The keychain refused it."_s), u"The keychain refused it."_s},
        {own(u"Stored vses_abc was refused."_s),
         u"Sign-in could not finish. Choose Sign in to try again."_s},
        {own(u"The AAC encoder stopped. Start again."_s), audioLine},
        {soundServerStatus(), audioLine},
        {thrown(std::runtime_error("PCM buffer short")), audioLine},
        {own(u"The server response is missing id — check the server version and retry."_s),
         u"The server sent an incomplete response. Try again; details are below."_s},
        {own(u"The upload URL is not HTTPS."_s), HTTPFailure::serverUnavailableLine},
        {own(u"A call is already open — finish it before starting another call. Then retry."_s),
         u"A call is already open — finish it before starting another call."_s},
        {own(u"Unexpected {\"a\": 1}"_s), genericLine},
        {thrown(std::runtime_error("A fine sentence.")), genericLine},
        {thrown(42), genericLine},
        {thrown(HTTPFailure(404, u""_s, u"/c"_s)), u"That call no longer exists on the server."_s},
    };
    for (const auto& [error, human] : cases) {
        SCOPED_TRACE(human.toStdString());
        EXPECT_EQ(ErrorPresentation::from(error).humanLine, human);
    }
}

TEST(ErrorPresentationTest, DetailLineNamesTypeNumberTextAndPath) {
    const std::optional<QString> path = u"/v1/calls"_s;
    const std::pair<std::exception_ptr, QString> cases[] = {
        {own(u"Plain words."_s), u"Plain words. · /v1/calls"_s},
        {thrown(URLError(99, u"Connection refused"_s)),
         u"tessel::URLError · 99 · Connection refused · /v1/calls"_s},
        {thrown(std::runtime_error("boom")), u"std::runtime_error · 0 · boom · /v1/calls"_s},
        {thrown(42), u"unknown · 0 · thrown value of int · /v1/calls"_s},
        // A refused request carries its own path; the one given is not added.
        {thrown(HTTPFailure(502, u"down"_s, u"/other"_s)), u"HTTP 502 · unknown · down · /other"_s},
    };
    for (const auto& [error, detail] : cases) {
        EXPECT_EQ(ErrorPresentation::from(error, path).detailLine, detail);
    }
    EXPECT_EQ(ErrorPresentation::from(URLError(5, u"Cancelled"_s)).detailLine,
              u"tessel::URLError · 5 · Cancelled"_s);
    // what() is the description in UTF-8, in storage that stays.
    const TesselError error(u"Ça marche — presque."_s);
    EXPECT_STREQ(error.what(), "\xc3\x87"
                               "a marche \xe2\x80\x94 presque.");
    EXPECT_EQ(error.what(), error.what());
}

TEST(ErrorPresentationTest, SignInFailurePrefersWhatTheTransportRecorded) {
    const ErrorPresentation diagnostic(u"Recorded."_s, u"HTTP 400 · invalid_grant · x · /token"_s);
    const URLError offline(3, u"Host not found"_s);
    EXPECT_EQ(ErrorPresentation::signInFailure(offline, std::nullopt),
              ErrorPresentation::from(offline));
    EXPECT_EQ(ErrorPresentation::signInFailure(offline, diagnostic), diagnostic);
    EXPECT_EQ(ErrorPresentation::signInFailure(HTTPFailure(400, u""_s, u"/t"_s), diagnostic),
              diagnostic);
    EXPECT_EQ(
        ErrorPresentation::signInFailure(TesselError(u"Sign-in refused: denied"_s), diagnostic),
        diagnostic);
    EXPECT_EQ(ErrorPresentation::signInFailure(
                  TesselError(u"The sign-in took too long. Try again."_s), diagnostic),
              ErrorPresentation(u"The sign-in took too long."_s,
                                u"The sign-in took too long. Try again.\nLast response: HTTP 400 · "
                                u"invalid_grant · x · /token"_s));
}

TEST(ErrorPresentationTest, HumanTextKeepsOutMachineTextAndEndsAtTheFirstSentence) {
    const std::pair<QString, bool> cases[] = {
        {u"Fichier trop grand — réessayez."_s, true},
        {u"code 600 is not a status"_s, true},
        {u"file.txt was rejected"_s, true},
        {u" \t "_s, false},
        {u"Bad {json}"_s, false},
        {u"Token expired"_s, false},
        {u"two\nlines"_s, false},
        {u"Check docs.velmora.xyz/help"_s, false},
        {u"my-host.dev is down"_s, false},
        {u"Status: 503"_s, false},
        // Unicode-aware classes: a no-break space is white space, and an accented
        // letter continues a word, so "velmora.ioé" is no domain.
        {u"status\u00A0404"_s, false},
        {u"Try velmora.ioé later"_s, true},
    };
    for (const auto& [text, human] : cases) {
        EXPECT_EQ(ErrorPresentation::isHumanText(text), human) << text.toStdString();
    }
    const std::pair<QString, QString> sentences[] = {
        {u"  One. Two.  "_s, u"One."_s},
        {u"Use a card, e.g. a debit card."_s, u"Use a card, e.g."_s},
        {u"Version 1.2 is out. Yes"_s, u"Version 1.2 is out."_s},
        {u"Why?\nBecause."_s, u"Why?"_s},
        {u"No mark at all"_s, u"No mark at all"_s},
    };
    for (const auto& [text, sentence] : sentences) {
        EXPECT_EQ(ErrorPresentation::firstSentence(text), sentence);
    }
}

// Callers show these words as they are: a Failure by its own description, not
// the UTF-8 of what(); a value that is no exception by the caller's words.
TEST(ErrorPresentationTest, DescribingAThrownValue) {
    EXPECT_EQ(describeFailure(own(u"Disk full — free space."_s), u"x"_s),
              u"Disk full — free space."_s);
    EXPECT_EQ(describeFailure(thrown(std::runtime_error("bad état")), u"x"_s), u"bad état"_s);
    EXPECT_EQ(describeFailure(std::make_exception_ptr(42), u"Unknown failure"_s),
              u"Unknown failure"_s);
    EXPECT_TRUE(isCancellation(thrown(Cancelled())));
    EXPECT_FALSE(isCancellation(own(u"cancelled"_s)));
}

} // namespace
