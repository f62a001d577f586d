// The executable's two forms and the command form's checks: the real binary for
// its output streams and exit status, the checks themselves as tables.
#include "CaptureCLI.h"
#include "support/Files.h"
#include "support/Processes.h"
#include "support/Wait.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::app;
using namespace tessel::test;

namespace {

// Written out here, not taken from the program: the text is part of the interface.
const QString usage = QStringLiteral(
    "VelmoraTessel                        Open the tray app\n"
    "VelmoraTessel capture --base-url URL --token MEMBER_SESSION --title NAME --counterpart NAME "
    "--seconds 25 --project \"\"\n"
    "\n"
    "capture acknowledges the disclosure on the operator's behalf. Say it to the participants "
    "first:\n"
    "Heads-up: I'm taking notes on this call with a recorder on my side; say so if you'd rather I "
    "didn't.\n"
    "capture records the sound server of the desktop session it runs in (PulseAudio or PipeWire): "
    "run it in the session where the call plays.\n");
const QString optionWords = QStringLiteral(
    "Unknown, repeated or incomplete capture option — use capture --help for the supported "
    "options.");
const QString requirementWords = QStringLiteral(
    "Capture requires a title, counterpart, member session and duration between 0 and 7200 "
    "seconds — use capture --help.");
const QString hostingWords = QStringLiteral(
    "Hosting requires a vses_ member session — sign in with the device code; organisation API "
    "keys cannot host calls.");

// The options of a capture that passes every check, but for `seconds` and `url`.
QStringList options(const QString& seconds, const QString& url = "http://127.0.0.1:9/meet",
                    const QString& token = "tok") {
    return {"--title", "T",         "--counterpart", "C",          "--token",
            token,     "--seconds", seconds,         "--base-url", url};
}

std::optional<QString> refusal(const QStringList& arguments) {
    try {
        CaptureCLI::parse(arguments);
    } catch (...) {
        return wordsOf(std::current_exception());
    }
    return std::nullopt;
}

} // namespace

TEST(Entry, HelpUnknownCommandsAndARefusedCaptureAsAPersonSeesThem) {
    for (const QStringList& arguments :
         {QStringList{"-h"}, QStringList{"--help"}, QStringList{"--help", "capture"},
          QStringList{"capture", "--help"}, QStringList{"capture", "--title", "--help"}}) {
        const Ran run = runToEnd(TESSEL_APP_PATH, arguments);
        EXPECT_EQ(run.status, 0) << arguments.join(' ').toStdString();
        EXPECT_EQ(run.out, usage);
        EXPECT_EQ(run.err, "");
    }
    const Ran unknown = runToEnd(TESSEL_APP_PATH, {"captures"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.out, "");
    EXPECT_EQ(unknown.err, QStringLiteral("Unknown command — use --help or capture.\n") + usage);
    const Ran refused = runToEnd(TESSEL_APP_PATH, {"capture", "-h"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(refused.err, "Velmora Tessel: " + optionWords + "\n");
}

// A broken endpoints file stops the application form with one line, before
// any window or tray icon exists.
TEST(Entry, MalformedEndpointsFileStopsTheStart) {
    QTemporaryDir dir;
    const QString file =
        writeFile(dir.filePath("endpoints.json"), R"({"auth_url": "https://127.0.0.1:1"})");
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("VELMORA_TESSEL_ENDPOINTS", file);
    const Ran run = runToEnd(TESSEL_APP_PATH, {}, env);
    EXPECT_EQ(run.status, 1);
    const QString& err = run.err;
    EXPECT_TRUE(err.startsWith("Velmora Tessel: VELMORA_TESSEL_ENDPOINTS file " + file +
                               ": unknown key \"auth_url\""))
        << err.toStdString();
    EXPECT_EQ(err.count('\n'), 1);
}

TEST(CaptureCommand, EachCheckRefusesInItsOwnWords) {
    const std::pair<QStringList, QString> cases[] = {
        {{"--title", "A", "--title", "B"}, optionWords},
        {{"--title"}, optionWords},
        {{"--verbose", "x"}, optionWords},
        {{"--title", "A", "--counterpart"}, optionWords},
        {{}, requirementWords},
        // "--counterpart" is the title's value; the counterpart is then missing.
        {{"--title", "--counterpart"}, requirementWords},
        {{"--title", "--counterpart", "--counterpart", "X", "--token", "Y"}, hostingWords},
        {options("5", "http://exa mple.com/meet"), requirementWords},
        {options("5", "https://meet.example.com/meet"), hostingWords},
    };
    for (const auto& [arguments, words] : cases) {
        EXPECT_EQ(refusal(arguments), words) << arguments.join(' ').toStdString();
    }
    for (const QString seconds : {"0", "-1", "nan", "inf", "infinity", "7201", " 5", "5s", "",
                                  "\t5", "0x10", "0x1p3", "1e400", "٣"}) {
        EXPECT_EQ(refusal(options(seconds)), requirementWords) << seconds.toStdString();
    }
}

TEST(CaptureCommand, DurationsThatRunAndHostsThatTakeAnyToken) {
    for (const QString seconds : {"7200", "0.5", "1e3", "+.5", "7.e2"}) {
        EXPECT_EQ(refusal(options(seconds)), std::nullopt) << seconds.toStdString();
    }
    EXPECT_EQ(CaptureCLI::parse(options("1e3")).seconds, 1000);
    EXPECT_EQ(CaptureCLI::parseSeconds("7200.0000001"), 7200.0000001);
    for (const QString host : {"localhost", "127.0.0.1", "[::1]"}) {
        EXPECT_EQ(refusal(options("5", "http://" + host + ":8080/meet")), std::nullopt)
            << host.toStdString();
    }
    // A member session passes the token rule anywhere; the meet API then wants HTTPS.
    const QStringList plainHTTP = options("5", "http://meet.example.com/meet", "vses_abc");
    EXPECT_EQ(refusal(plainHTTP), std::nullopt);
    EXPECT_EQ(wordsOf(failureOf(CaptureCLI::run(plainHTTP))),
              "The organisation address is invalid — enter the secure meet address for your "
              "organisation.");
}
