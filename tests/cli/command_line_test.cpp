// The executable's two forms and the command form's checks, run as a person
// would run them: the real binary, its output streams and its exit status.
#include "CaptureCLI.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::app;

namespace {

struct AppRun {
    int status;
    QString out;
    QString err;
};

AppRun runApp(const QStringList& arguments) {
    QProcess process;
    process.setProgram(QStringLiteral(TESSEL_APP_PATH));
    process.setArguments(arguments);
    process.start();
    if (!process.waitForFinished(30000)) {
        process.kill();
        process.waitForFinished();
        return {-1, {}, QStringLiteral("timed out")};
    }
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

// Written out here, not taken from the program: the text is part of the interface.
const QString usage = QStringLiteral(
    "VelmoraTessel                        Open the menu-bar app\n"
    "VelmoraTessel capture --base-url URL --token MEMBER_SESSION --title NAME --counterpart NAME "
    "--seconds 25 --project \"\"\n"
    "\n"
    "capture acknowledges the disclosure on the operator's behalf. Say it to the participants "
    "first:\n"
    "Heads-up: I'm taking notes on this call with a recorder on my side; say so if you'd rather I "
    "didn't.\n"
    "Use the signed .app executable so macOS can associate audio permissions with "
    "ai.velmora.tessel.\n");
const QString optionLine = QStringLiteral(
    "Velmora Tessel: Unknown, repeated or incomplete capture option — use capture --help for the "
    "supported options.\n");
const QString requirementLine = QStringLiteral(
    "Velmora Tessel: Capture requires a title, counterpart, member session and duration between 0 "
    "and 7200 seconds — use capture --help.\n");
const QString hostingLine = QStringLiteral(
    "Velmora Tessel: Hosting requires a vses_ member session — sign in with the device code; "
    "organisation API keys cannot host calls.\n");

QStringList complete(const QString& seconds) {
    return {QStringLiteral("capture"),       QStringLiteral("--title"),   QStringLiteral("T"),
            QStringLiteral("--counterpart"), QStringLiteral("C"),         QStringLiteral("--token"),
            QStringLiteral("tok"),           QStringLiteral("--seconds"), seconds};
}

} // namespace

TEST(Entry, HelpAndUnknownCommands) {
    for (const QStringList& arguments :
         {QStringList{"-h"}, QStringList{"--help"}, QStringList{"--help", "capture"},
          QStringList{"capture", "--help"}, QStringList{"capture", "--title", "--help"}}) {
        const AppRun run = runApp(arguments);
        EXPECT_EQ(run.status, 0) << arguments.join(' ').toStdString();
        EXPECT_EQ(run.out, usage);
        EXPECT_EQ(run.err, "");
    }
    const AppRun unknown = runApp({"captures"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.out, "");
    EXPECT_EQ(unknown.err, QStringLiteral("Unknown command — use --help or capture.\n") + usage);
}

// A broken endpoints file stops the application form with one line, before
// any window or tray icon exists.
TEST(Entry, MalformedEndpointsFileStopsTheStart) {
    QTemporaryDir dir;
    QFile file(dir.filePath("endpoints.json"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(R"({"auth_url": "https://127.0.0.1:1"})");
    file.close();
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("VELMORA_TESSEL_ENDPOINTS", file.fileName());
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(TESSEL_APP_PATH), {});
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_EQ(process.exitCode(), 1);
    const QString err = QString::fromUtf8(process.readAllStandardError());
    EXPECT_TRUE(err.startsWith("Velmora Tessel: VELMORA_TESSEL_ENDPOINTS file " + file.fileName() +
                               ": unknown key \"auth_url\""))
        << err.toStdString();
    EXPECT_EQ(err.count('\n'), 1);
}

TEST(CaptureCommand, OptionsThatAreUnknownRepeatedOrIncomplete) {
    for (const QStringList& arguments : {
             QStringList{"capture", "-h"},
             QStringList{"capture", "--title", "A", "--title", "B"},
             QStringList{"capture", "--title"},
             QStringList{"capture", "--verbose", "x"},
             QStringList{"capture", "--title", "A", "--counterpart"},
         }) {
        const AppRun run = runApp(arguments);
        EXPECT_EQ(run.status, 1) << arguments.join(' ').toStdString();
        EXPECT_EQ(run.err, optionLine) << arguments.join(' ').toStdString();
    }
}

TEST(CaptureCommand, MissingValuesAndDurationsOutOfRange) {
    EXPECT_EQ(runApp({"capture"}).err, requirementLine);
    // "--counterpart" is read as the title's value; the counterpart is then missing.
    EXPECT_EQ(runApp({"capture", "--title", "--counterpart"}).err, requirementLine);
    for (const QString seconds : {"0", "-1", "nan", "inf", "infinity", "7201", " 5", "5s", "",
                                  "\t5", "0x10", "0x1p3", "1e400", "٣"}) {
        const AppRun run = runApp(complete(seconds));
        EXPECT_EQ(run.status, 1) << seconds.toStdString();
        EXPECT_EQ(run.err, requirementLine) << "seconds '" << seconds.toStdString() << "'";
    }
    QStringList badURL = complete("5");
    badURL << "--base-url"
           << "http://exa mple.com/meet";
    EXPECT_EQ(runApp(badURL).err, requirementLine);
}

TEST(CaptureCommand, TokenRuleAndAddressRule) {
    // The title takes "--counterpart" as its value and reading goes on.
    const AppRun odd =
        runApp({"capture", "--title", "--counterpart", "--counterpart", "X", "--token", "Y"});
    EXPECT_EQ(odd.err, hostingLine);
    EXPECT_EQ(odd.status, 1);

    QStringList plainHTTP = complete("5");
    plainHTTP.replace(plainHTTP.indexOf("tok"), "vses_abc");
    plainHTTP << "--base-url"
              << "http://meet.example.com/meet";
    const AppRun insecure = runApp(plainHTTP);
    EXPECT_EQ(insecure.err, "Velmora Tessel: The organisation address is invalid — enter the "
                            "secure meet address for your organisation.\n");
    EXPECT_EQ(insecure.status, 1);
}

TEST(CaptureCommand, DurationsThatRun) {
    for (const QString seconds : {"7200", "0.5", "1e3", "25", "+.5", "7.e2"}) {
        QStringList arguments = complete(seconds).mid(1);
        arguments << "--base-url"
                  << "http://127.0.0.1:9/meet";
        EXPECT_NO_THROW(CaptureCLI::parse(arguments)) << seconds.toStdString();
    }
    QStringList member = complete("1e3").mid(1);
    member.replace(member.indexOf("tok"), "vses_abc");
    EXPECT_EQ(CaptureCLI::parse(member).seconds, 1000);
    EXPECT_EQ(CaptureCLI::parseSeconds("7200.0000001"), 7200.0000001);
    // Any token is fine on a loopback host, in every spelling of it.
    for (const QString host : {"localhost", "127.0.0.1", "[::1]"}) {
        QStringList arguments = complete("5").mid(1);
        arguments << "--base-url" << QStringLiteral("http://%1:8080/meet").arg(host);
        EXPECT_NO_THROW(CaptureCLI::parse(arguments)) << host.toStdString();
    }
}
