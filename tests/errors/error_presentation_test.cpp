// From a thrown failure to the sentence a person reads and the line the log keeps.
#include "errors/ErrorLog.h"
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
const QString signInAgainLine = u"Sign-in could not finish. Choose Sign in to try again."_s;

template <typename Error> std::exception_ptr thrown(Error error) {
    return std::make_exception_ptr(std::move(error));
}

std::exception_ptr tesselError(const QString& message) {
    return thrown(TesselError(message));
}

struct RowCase {
    const char* name;
    std::exception_ptr error;
    QString human;
};

TEST(ErrorPresentationTest, HumanLineComesFromTheFirstRowThatFits) {
    const auto microphone = AudioCaptureError::microphonePermissionDenied();
    const RowCase cases[] = {
        {"transport", thrown(URLError(1, u"Keychain refused"_s)),
         HTTPFailure::serverUnavailableLine},
        {"system audio", thrown(AudioCaptureError::systemAudioStartFailed(u"PCM format odd."_s)),
         u"System audio could not start — enable Velmora Tessel in System Settings → Privacy & "
         u"Security → Screen & System Audio Recording, then quit and reopen the app."_s},
        {"microphone", thrown(microphone), microphone.description()},
        {"decoding", thrown(DecodingError(u"AAC"_s)),
         u"The server sent an unexpected response. Try again; details are below."_s},
        {"keychain", tesselError(u"Keychain refused the item (-25293)."_s),
         u"Your saved sign-in could not be opened — unlock your login Keychain, allow Velmora "
         u"Tessel access, and sign in again."_s},
        {"keychain is case-sensitive", tesselError(u"The keychain refused it."_s),
         u"The keychain refused it."_s},
        {"session token", tesselError(u"Stored vses_abc was refused."_s), signInAgainLine},
        {"sign-in refused", tesselError(u"Sign-in refused: access_denied"_s), signInAgainLine},
        {"Core Audio", tesselError(u"Core Audio device vanished."_s), audioLine},
        {"AAC beats own words", tesselError(u"The AAC encoder stopped. Start again."_s), audioLine},
        {"PCM", thrown(std::runtime_error("PCM buffer short")), audioLine},
        {"missing field",
         tesselError(u"The server response is missing id — check the server version and retry."_s),
         u"The server sent an incomplete response. Try again; details are below."_s},
        {"upload URL", tesselError(u"The upload URL is not HTTPS."_s),
         HTTPFailure::serverUnavailableLine},
        {"storage", tesselError(u"The storage service did not request a checksum."_s),
         HTTPFailure::serverUnavailableLine},
        {"verification URL",
         tesselError(u"The sign-in response has an unexpected verification URL: x"_s),
         u"The sign-in page could not be opened. Choose Sign in to try again."_s},
        {"own words, first sentence",
         tesselError(u"A call is already open — finish it before starting another call. Then "
                     u"retry."_s),
         u"A call is already open — finish it before starting another call."_s},
        {"own words not human", tesselError(u"Unexpected {\"a\": 1}"_s), genericLine},
        {"empty own words", tesselError(u""_s), genericLine},
        {"plain exception", thrown(std::runtime_error("A fine sentence.")), genericLine},
        {"not an exception", thrown(42), genericLine},
        {"refused request", thrown(HTTPFailure(404, u""_s, u"/c"_s)),
         u"That call no longer exists on the server."_s},
    };
    for (const RowCase& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ErrorPresentation::from(c.error).humanLine, c.human);
    }
}

TEST(ErrorPresentationTest, DetailLineNamesTypeNumberTextAndPath) {
    const std::optional<QString> path = u"/v1/calls"_s;
    const std::pair<std::exception_ptr, QString> cases[] = {
        {tesselError(u"Plain words."_s), u"Plain words. · /v1/calls"_s},
        {thrown(URLError(99, u"Connection refused"_s)),
         u"tessel::URLError · 99 · Connection refused · /v1/calls"_s},
        {thrown(DecodingError(u"Bad."_s)), u"tessel::DecodingError · 4864 · Bad. · /v1/calls"_s},
        {thrown(std::runtime_error("boom")), u"std::runtime_error · 0 · boom · /v1/calls"_s},
        {thrown(42), u"unknown · 0 · thrown value of int · /v1/calls"_s},
        // A refused request carries its own path; the one given is not added.
        {thrown(HTTPFailure(502, u"down"_s, u"/other"_s)), u"HTTP 502 · unknown · down · /other"_s},
    };
    for (const auto& [error, detail] : cases) {
        SCOPED_TRACE(detail.toStdString());
        EXPECT_EQ(ErrorPresentation::from(error, path).detailLine, detail);
    }
    EXPECT_EQ(ErrorPresentation::from(TesselError(u"Plain words."_s)).detailLine,
              u"Plain words."_s);
    EXPECT_EQ(ErrorPresentation::from(URLError(5, u"Cancelled"_s)).detailLine,
              u"tessel::URLError · 5 · Cancelled"_s);
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

    const TesselError own(u"The sign-in took too long. Try again."_s);
    EXPECT_EQ(ErrorPresentation::signInFailure(own, diagnostic),
              ErrorPresentation(u"The sign-in took too long."_s,
                                u"The sign-in took too long. Try again.\nLast response: HTTP 400 · "
                                u"invalid_grant · x · /token"_s));
}

TEST(ErrorPresentationTest, HumanTextKeepsOutMachineText) {
    const std::pair<QString, bool> cases[] = {
        {u"Title is required."_s, true},
        {u"Fichier trop grand — réessayez."_s, true},
        {u"code 600 is not a status"_s, true},
        {u"error 4040 happened"_s, true},
        {u"file.txt was rejected"_s, true},
        {u""_s, false},
        {u" \t "_s, false},
        {u"Bad {json}"_s, false},
        {u"HTTP said no"_s, false},
        {u"Token expired"_s, false},
        {u"wrong API key"_s, false},
        {u"two\nlines"_s, false},
        {u"a < b"_s, false},
        {u"Check docs.velmora.xyz/help"_s, false},
        {u"Ask at velmora.AI today"_s, false},
        {u"my-host.dev is down"_s, false},
        {u"Status: 503"_s, false},
        {u"ERROR 404 seen"_s, false},
        // Unicode-aware classes: a no-break space is white space, and an accented
        // letter continues a word, so "velmora.ioé" is no domain.
        {u"status\u00A0404"_s, false},
        {u"Try velmora.ioé later"_s, true},
    };
    for (const auto& [text, human] : cases) {
        SCOPED_TRACE(text.toStdString());
        EXPECT_EQ(ErrorPresentation::isHumanText(text), human);
    }
}

TEST(ErrorPresentationTest, FirstSentenceEndsAtTheFirstMarkBeforeABlank) {
    const std::pair<QString, QString> cases[] = {
        {u"  One. Two.  "_s, u"One."_s},
        {u"Use a card, e.g. a debit card."_s, u"Use a card, e.g."_s},
        {u"Version 1.2 is out. Yes"_s, u"Version 1.2 is out."_s},
        {u"Why?\nBecause."_s, u"Why?"_s},
        {u"No mark at all"_s, u"No mark at all"_s},
        {u"\n"_s, u""_s},
    };
    for (const auto& [text, sentence] : cases) {
        SCOPED_TRACE(text.toStdString());
        EXPECT_EQ(ErrorPresentation::firstSentence(text), sentence);
    }
}

TEST(ErrorPresentationTest, LogWritesTheDetailLineAsAnError) {
    std::vector<std::tuple<log::Level, std::string, QString>> lines;
    const log::ScopedSink sink([&](log::Level level, const char* category, const QString& text) {
        lines.emplace_back(level, category, text);
    });
    ErrorPresentation::from(URLError(7, u"Timed out"_s), u"/p"_s).log();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::make_tuple(log::Level::error, std::string("errors"),
                                        u"tessel::URLError · 7 · Timed out · /p"_s));
}

} // namespace
