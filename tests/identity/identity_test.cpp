// Organisation hosts, the selection kept in the user defaults, and the
// endpoints file.
#include "identity/Endpoints.h"
#include "identity/OrgStore.h"
#include "support/Files.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace tessel;

namespace {

QString failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const TesselError& error) {
        return error.message();
    }
    return {};
}

} // namespace

TEST(Org, HostRules) {
    const QString invalid = "Enter a valid organisation host.";
    struct Row {
        QString text, host, name, failure;
    };
    for (const Row& row : std::vector<Row>{
             {"Acme.Velmora.AI", "acme.velmora.ai", "acme", ""},
             {"localhost", "localhost", "localhost", ""},
             {"a-b.c1", "a-b.c1", "a-b", ""},
             {"", "", "", invalid},
             {"a..b", "", "", invalid},
             {".a", "", "", invalid},
             {"a.", "", "", invalid},
             {"-a.b", "", "", invalid},
             {"a-.b", "", "", invalid},
             {"a_b", "", "", invalid},
             {"é.com", "", "", invalid},
             {"a b", "", "", invalid},
             {"123", "", "", invalid}, // would be read as the address 0.0.0.123
         }) {
        SCOPED_TRACE(row.text.toStdString());
        EXPECT_EQ(failureOf([&] { Org::fromHost(row.text); }), row.failure);
        if (row.failure.isEmpty()) {
            const Org org = Org::fromHost(row.text);
            EXPECT_EQ(org, (Org{row.host, QUrl("https://" + row.host), row.name}));
            EXPECT_EQ(org.meetURL().toString(), "https://" + row.host + "/meet");
        }
    }
}

TEST(Org, URLRules) {
    const QString refused = "Enter an HTTPS organisation URL.";
    for (const auto& [text, failure] : std::vector<std::pair<QString, QString>>{
             {"https://Acme.example/meet/x", ""},
             {"http://acme.example", refused},
             {"HTTPS://acme.example", refused},
             {"https://acme.example:8443", refused},
             {"https://user@acme.example", refused},
             {"https://:pw@acme.example", refused},
             {"acme.example", refused},
             {"https://a_b.example", "Enter a valid organisation host."},
         }) {
        EXPECT_EQ(failureOf([&] { Org::fromURL(text); }), failure) << text.toStdString();
    }
    EXPECT_EQ(Org::fromURL("https://Acme.example/meet/x").host, "acme.example");
}

TEST(OrgStore, SelectionAtStart) {
    struct Row {
        const char* what;
        QVariant current, meet;
        QString expected;
    };
    for (const Row& row : std::vector<Row>{
             {"nothing stored", {}, {}, "velmora.ai"},
             {"only the old meet URL", {}, "https://old.example/meet", "old.example"},
             {"a selection", "Sel.Example", "https://old.example/meet", "sel.example"},
             {"an invalid selection", "bad_host", "https://old.example/meet", "velmora.ai"},
             {"a list where a text belongs", QStringList{"x", "y"}, {}, "velmora.ai"},
         }) {
        SCOPED_TRACE(row.what);
        QTemporaryDir dir;
        auto defaults = std::make_shared<SettingsDefaults>(dir.filePath("d.conf"));
        if (row.current.isValid()) {
            defaults->set("currentOrgHost", row.current);
        }
        if (row.meet.isValid()) {
            defaults->set("meetBaseURL", row.meet);
        }
        const OrgStore store(defaults, "https://velmora.ai/meet", {}, "velmora.ai");
        EXPECT_EQ(store.current().host, row.expected);
        EXPECT_EQ(defaults->string("currentOrgHost"), row.expected);
        // The old key stays until the next selection.
        EXPECT_EQ(defaults->value("meetBaseURL"), row.meet);
    }
}

TEST(OrgStore, KnownAndSelect) {
    QTemporaryDir dir;
    auto defaults = std::make_shared<SettingsDefaults>(dir.filePath("d.conf"));
    QStringList stored{"zeta.example", "bad_host", "Acme.example", "acme.example"};
    OrgStore store(
        defaults, {}, [&] { return stored; }, "velmora.ai");
    const auto hosts = [](const std::vector<Org>& orgs) {
        QStringList out;
        for (const Org& org : orgs) {
            out << org.host;
        }
        return out;
    };
    EXPECT_EQ(hosts(store.known()), QStringList({"acme.example", "velmora.ai", "zeta.example"}));
    EXPECT_EQ(hosts(store.known("https://new.example/meet")),
              QStringList({"acme.example", "new.example", "zeta.example"}));

    QString applied;
    EXPECT_THROW(store.select("bad host", [&](const Org& org) { applied = org.host; }),
                 TesselError);
    EXPECT_EQ(store.current().host, "velmora.ai");
    EXPECT_EQ(store.select("Zeta.example", [&](const Org& org) { applied = org.host; }).host,
              "zeta.example");
    EXPECT_EQ(applied, "zeta.example");
    EXPECT_EQ(defaults->string("meetBaseURL"), "https://zeta.example/meet");

    stored = QStringList();
    EXPECT_EQ(hosts(store.known()), QStringList({"zeta.example"}));
}

// QSettings keeps types within a process but not in its file: what another
// process wrote comes back as texts.
TEST(UserDefaults, WrittenByAnotherProcess) {
    QTemporaryDir dir;
    const QString file = dir.filePath("VelmoraTessel.conf");
    ASSERT_EQ(QProcess::execute(TESSEL_DEFAULTS_WRITER, {file}), 0);

    const auto defaults = std::make_shared<SettingsDefaults>(file);
    EXPECT_EQ(defaults->value("one").typeId(), QMetaType::QString);
    EXPECT_EQ(defaults->stringList("one"), QStringList{"a"});
    EXPECT_EQ(defaults->stringList("two"), QStringList({"a", "b"}));
    EXPECT_EQ(defaults->stringList("none"), QStringList());
    EXPECT_EQ(defaults->boolean("off"), false);
    EXPECT_EQ(defaults->number("count"), 42.5);
    EXPECT_EQ(defaults->string("two"), std::nullopt);
    EXPECT_EQ(defaults->boolean("count"), std::nullopt);

    const OrgStore store(defaults, "https://velmora.ai/meet", {}, "velmora.ai");
    EXPECT_EQ(store.current().host, "acme.example");
    EXPECT_EQ(defaults->string("meetBaseURL"), "https://acme.example/meet");
}

// One settings file for the program. The organisation selection that an
// earlier version kept in VelmoraTessel.ini comes over once and that file goes;
// what the .conf already held (the feed's state) wins and stays.
TEST(UserDefaults, TheProgramKeepsOneFileAndAdoptsTheEarlierOne) {
    QTemporaryDir config;
    const QString folder = config.filePath("Velmora");
    ASSERT_TRUE(QDir().mkpath(folder));
    test::writeFile(folder + "/VelmoraTessel.ini", "[General]\ncurrentOrgHost=acme.example\n"
                                                   "meetBaseURL=https://acme.example/meet\n"
                                                   "notifyBaseURL=https://old.example\n");
    test::writeFile(folder + "/VelmoraTessel.conf",
                    "[General]\nnotifyShownIDs=n1, n2\nnotifyBaseURL=https://notify.example\n");
    QProcess writer;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_CONFIG_HOME", config.path());
    writer.setProcessEnvironment(environment);
    writer.start(TESSEL_DEFAULTS_WRITER, {"--program"});
    ASSERT_TRUE(writer.waitForFinished(30000));
    ASSERT_EQ(writer.exitCode(), 0);

    EXPECT_EQ(QDir(folder).entryList(QDir::Files | QDir::Hidden),
              QStringList{"VelmoraTessel.conf"});
    const SettingsDefaults kept(folder + "/VelmoraTessel.conf");
    EXPECT_EQ(kept.string("currentOrgHost"), "acme.example");
    EXPECT_EQ(kept.string("meetBaseURL"), "https://acme.example/meet");
    EXPECT_EQ(kept.stringList("notifyShownIDs"), QStringList({"n1", "n2"}));
    EXPECT_EQ(kept.string("notifyBaseURL"), "https://notify.example");
    EXPECT_EQ(kept.boolean("desktopNotifications"), false);
}

TEST(Endpoints, FileOverridesAndMistakes) {
    QTemporaryDir dir;
    const QString pem = test::writeFile(dir.filePath("ca.pem"), "not a certificate");
    for (const auto& [body, problem] : std::vector<std::pair<QByteArray, QString>>{
             {"{\"auth_service_url\": ", "is not JSON (parse error at line 1, column "},
             {"[]", "must hold one JSON object."},
             {"{\"auth_url\": \"https://a\"}", "unknown key \"auth_url\""},
             {"{\"auth_service_url\": 5}", "auth_service_url must be a text."},
             {"{\"notify_service_url\": \"ftp://x\"}",
              "notify_service_url must be an absolute http or https URL, not \"ftp://x\"."},
             {"{\"org_origin\": \"https://127.0.0.1:9/meet\"}", "org_origin must be a scheme"},
             {"{\"default_org_host\": \"a_b\"}", "default_org_host \"a_b\" is not a valid"},
             {"{\"ca_file\": \"ca.pem\"}", "ca_file " + pem + " holds no PEM certificate."},
             {"{\"ca_file\": \"gone.pem\"}", "ca_file " + dir.filePath("gone.pem") + " cannot"},
         }) {
        const QString path = test::writeFile(dir.filePath("endpoints.json"), body);
        const QString message = failureOf([&] { Endpoints::load(path); });
        EXPECT_TRUE(message.startsWith("VELMORA_TESSEL_ENDPOINTS file " + path + ": " + problem))
            << message.toStdString();
        EXPECT_FALSE(message.contains('\n'));
    }
    EXPECT_TRUE(failureOf([&] {
                    Endpoints::load(dir.filePath("absent.json"));
                }).contains("absent.json: cannot be read"));

    const QString path =
        test::writeFile(dir.filePath("endpoints.json"), R"({"default_org_host": "Acme.Test",
        "org_origin": "https://127.0.0.1:8443/", "auth_service_url": "https://127.0.0.1:8443"})");
    const Endpoints endpoints = Endpoints::fromEnvironment([&](const char* name) {
        return QString(name) == "VELMORA_TESSEL_ENDPOINTS" ? path : QString();
    });
    EXPECT_EQ(endpoints.defaultOrgHost, "acme.test");
    EXPECT_EQ(endpoints.notifyServiceURL, Endpoints::production().notifyServiceURL);
    EXPECT_EQ(endpoints.requestURL(Org::fromHost("acme.test").meetURL()).toString(),
              "https://127.0.0.1:8443/meet");
    EXPECT_EQ(Endpoints::production().requestURL(QUrl("https://acme.test/meet")).toString(),
              "https://acme.test/meet");
    EXPECT_EQ(Endpoints::fromEnvironment([](const char*) { return QString(); }),
              Endpoints::production());
}
