#include "infra/InfraStatus.h"

#include "errors/Failures.h"
#include "tools/HelperInstaller.h"

#include <QDir>

#include <QRegularExpression>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <utility>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

using nlohmann::json;

const QString unreadable = u"The data couldn't be read because it isn't in the correct format."_s;

[[noreturn]] void refuse(const QString& path, const QString& problem) {
    throw DecodingError(unreadable + u" ("_s + path + u": "_s + problem + u")"_s);
}

// Reads one object's keys, naming the path of whatever is wrong.
class Reader {
public:
    Reader(const json& value, QString path) : value_(value), path_(std::move(path)) {
        if (!value_.is_object()) {
            refuse(path_, u"expected an object"_s);
        }
    }

    const json& required(const char* key) const {
        const auto found = value_.find(key);
        if (found == value_.end()) {
            refuse(at(key), u"missing"_s);
        }
        return *found;
    }
    // Absent and null are both none.
    const json* optional(const char* key) const {
        const auto found = value_.find(key);
        return found == value_.end() || found->is_null() ? nullptr : &*found;
    }

    QString string(const char* key) const { return stringOf(required(key), at(key)); }
    std::optional<QString> optionalString(const char* key) const {
        const json* found = optional(key);
        return found ? std::optional(stringOf(*found, at(key))) : std::nullopt;
    }
    bool boolean(const char* key) const {
        const json& found = required(key);
        if (!found.is_boolean()) {
            refuse(at(key), u"expected a boolean"_s);
        }
        return found.get<bool>();
    }
    qint64 integer(const char* key) const { return integerOf(required(key), at(key)); }
    std::optional<qint64> optionalInteger(const char* key) const {
        const json* found = optional(key);
        return found ? std::optional(integerOf(*found, at(key))) : std::nullopt;
    }
    template <typename Enum, std::size_t N>
    Enum choice(const char* key, const std::pair<const char*, Enum> (&cases)[N]) const {
        const QString text = string(key);
        for (const auto& [name, value] : cases) {
            if (text == QLatin1String(name)) {
                return value;
            }
        }
        refuse(at(key), u"unknown value \"%1\""_s.arg(text));
    }

    QString at(const char* key) const {
        return path_.isEmpty() ? QString::fromUtf8(key) : path_ + u"."_s + QString::fromUtf8(key);
    }

private:
    static QString stringOf(const json& value, const QString& path) {
        if (!value.is_string()) {
            refuse(path, u"expected a string"_s);
        }
        return QString::fromStdString(value.get<std::string>());
    }
    // Whole numbers only: nlohmann would turn 42.5 into 42 without a word.
    static qint64 integerOf(const json& value, const QString& path) {
        if (value.is_number_unsigned() && value.get<std::uint64_t>() > INT64_MAX) {
            refuse(path, u"out of range"_s);
        }
        if (!value.is_number_integer()) {
            refuse(path, u"expected a whole number"_s);
        }
        return value.get<std::int64_t>();
    }

    const json& value_;
    QString path_;
};

constexpr std::pair<const char*, InfraStatus::State> stateCases[] = {
    {"running", InfraStatus::State::running},
    {"unhealthy", InfraStatus::State::unhealthy},
    {"stopped", InfraStatus::State::stopped},
    {"missing", InfraStatus::State::missing},
};
constexpr std::pair<const char*, InfraStatus::Mode> modeCases[] = {
    {"supervisor", InfraStatus::Mode::supervisor},
    {"isolated", InfraStatus::Mode::isolated},
};

InfraStatus::Organisation organisationFrom(const json& value, const QString& path) {
    const Reader row(value, path);
    InfraStatus::Organisation organisation;
    organisation.slug = row.string("slug");
    organisation.orgURL = row.string("org_url");
    organisation.mode = row.choice("mode", modeCases);
    organisation.port = row.optionalInteger("port");

    const Reader conductor(row.required("conductor"), row.at("conductor"));
    organisation.conductor.state = conductor.choice("state", stateCases);
    organisation.conductor.healthURL = conductor.optionalString("health_url");
    organisation.conductor.openURL = conductor.optionalString("open_url");
    organisation.conductor.db = conductor.optionalString("db");
    organisation.conductor.config = conductor.optionalString("config");

    const Reader tunnel(row.required("tunnel"), row.at("tunnel"));
    organisation.tunnel.state = tunnel.choice("state", stateCases);
    organisation.tunnel.label = tunnel.optionalString("label");
    organisation.tunnel.plist = tunnel.optionalString("plist");
    organisation.tunnel.log = tunnel.optionalString("log");
    return organisation;
}

} // namespace

QString InfraStatus::Supervisor::humanLine() const {
    return detail ? *detail : label + u" is not loaded"_s;
}

// An isolated conductor runs as a system-wide service that only an
// administrator changes; this user's agent supervisor has no hand in it.
QString InfraStatus::Organisation::managementHelp() const {
    return mode == Mode::isolated
               ? u"managed by a systemd system service; use the isolated-conductor runbook"_s
               : u"Managed by the agent supervisor"_s;
}

std::optional<QUrl> InfraStatus::Organisation::openURL() const {
    return conductor.openURL ? InfraCLI::webURL(*conductor.openURL) : std::nullopt;
}

InfraStatus InfraStatus::decode(const QByteArray& text) {
    const json document = json::parse(text.begin(), text.end(), nullptr, false);
    if (document.is_discarded()) {
        throw DecodingError(unreadable);
    }
    const Reader top(document, {});
    InfraStatus status;
    const Reader supervisor(top.required("supervisor"), u"supervisor"_s);
    status.supervisor.loaded = supervisor.boolean("loaded");
    status.supervisor.label = supervisor.string("label");
    status.supervisor.detail = supervisor.optionalString("detail");
    status.nextPort = top.integer("next_port");
    const json& orgs = top.required("orgs");
    if (!orgs.is_array()) {
        refuse(u"orgs"_s, u"expected a list"_s);
    }
    for (std::size_t i = 0; i < orgs.size(); ++i) {
        status.orgs << organisationFrom(orgs[i], u"orgs[%1]"_s.arg(i));
    }
    return status;
}

std::optional<InfraStatus::Organisation> InfraStatus::organisation(const QString& host) const {
    for (const Organisation& row : orgs) {
        const QString rowHost = QUrl(row.orgURL).host().toLower();
        if (!rowHost.isEmpty() && rowHost == host) {
            return row;
        }
    }
    return std::nullopt;
}

QString stateText(InfraStatus::State state) {
    for (const auto& [name, value] : stateCases) {
        if (value == state) {
            return QString::fromLatin1(name);
        }
    }
    return {};
}

namespace InfraCLI {

QString notInstalled(const std::optional<QString>& installDirectory) {
    return HelperInstaller::notInstalled(toolName, installDirectory,
                                         u"to see and set up this machine's conductor"_s);
}

std::optional<QString> resolveBinary(const QProcessEnvironment& environment, const QString& home) {
    return HelperInstaller::resolve(toolName, overrideVariable, environment, home);
}

StreamingToolRunner runner(const QString& binary, const QProcessEnvironment& environment,
                           const QString& home) {
    return makeStreamingToolRunner(
        binary, HelperInstaller::environment(environment, home,
                                             HelperInstaller::dataDirectory(environment, home)));
}

InfraTool tool(const std::optional<QString>& installDirectory) {
    InfraTool found =
        tool(QProcessEnvironment::systemEnvironment(), QDir::homePath(), installDirectory);
    found.resolve = [installDirectory] {
        return tool(QProcessEnvironment::systemEnvironment(), QDir::homePath(), installDirectory)
            .resolve();
    };
    return found;
}

InfraTool tool(const QProcessEnvironment& environment, const QString& home,
               const std::optional<QString>& installDirectory) {
    return {[environment, home]() -> std::optional<StreamingToolRunner> {
                const auto binary = resolveBinary(environment, home);
                if (!binary) {
                    return std::nullopt;
                }
                return runner(*binary, environment, home);
            },
            notInstalled(installDirectory)};
}

std::optional<QUrl> webURL(const QString& text) {
    const qsizetype colon = text.indexOf(u':');
    const QString scheme = text.left(colon);
    if (colon < 0 || (scheme != u"http"_s && scheme != u"https"_s)) {
        return std::nullopt;
    }
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty()) {
        return std::nullopt;
    }
    // "https://@host" has an empty user that QUrl drops: refuse any '@' in the
    // authority of the raw text.
    QString authority = text.mid(colon + 1);
    if (authority.startsWith(u"//"_s)) {
        authority.remove(0, 2);
    }
    static const QRegularExpression authorityEnd(u"[/?#]"_s);
    if (const qsizetype end = authority.indexOf(authorityEnd); end >= 0) {
        authority.truncate(end);
    }
    if (!url.userInfo().isEmpty() || authority.contains(u'@')) {
        return std::nullopt;
    }
    return url;
}

} // namespace InfraCLI

} // namespace tessel
