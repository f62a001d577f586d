#include "infra/ConductorSetup.h"

#include "errors/Failures.h"
#include "identity/PrivateFolder.h"
#include "infra/InfraModel.h"

#include <QDir>
#include <QFile>
#include <QPointer>
#include <QRegularExpression>
#include <QUuid>

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

constexpr std::pair<const char*, ConductorStep::Name> nameCases[] = {
    {"preflight", ConductorStep::Name::preflight},
    {"write-config", ConductorStep::Name::writeConfig},
    {"start-conductor", ConductorStep::Name::startConductor},
    {"write-tunnel", ConductorStep::Name::writeTunnel},
    {"verify", ConductorStep::Name::verify},
};
constexpr std::pair<const char*, ConductorStep::State> stepStateCases[] = {
    {"running", ConductorStep::State::running},
    {"done", ConductorStep::State::done},
    {"failed", ConductorStep::State::failed},
    {"skipped", ConductorStep::State::skipped},
};

template <typename Enum, std::size_t N>
Enum choose(const nlohmann::json& line, const char* key,
            const std::pair<const char*, Enum> (&cases)[N]) {
    const std::string text = line.at(key).get<std::string>();
    for (const auto& [name, value] : cases) {
        if (text == name) {
            return value;
        }
    }
    throw DecodingError(
        u"Unknown %1 \"%2\"."_s.arg(QLatin1String(key), QString::fromStdString(text)));
}

const QString credentialFileFailure = u"Could not create a private credential file."_s;

void writeSecret(const QString& path, const QString& value) {
    const int fd = ::open(QFile::encodeName(path).constData(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw TesselError(credentialFileFailure);
    }
    const QByteArray bytes = value.toUtf8();
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n =
            ::write(fd, bytes.constData() + done, static_cast<size_t>(bytes.size() - done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ::close(fd);
            throw TesselError(credentialFileFailure);
        }
        done += n;
    }
    if (::close(fd) != 0) {
        throw TesselError(credentialFileFailure);
    }
}

Task<void> nothing() {
    co_return;
}

// JSON's short escapes, as patterns.
constexpr std::pair<char32_t, const char16_t*> shortEscapes[] = {
    {U'"', uR"(\\")"},  {U'\\', uR"(\\\\)"}, {U'/', uR"(\\/)"},  {U'\b', uR"(\\b)"},
    {U'\f', uR"(\\f)"}, {U'\n', uR"(\\n)"},  {U'\r', uR"(\\r)"}, {U'\t', uR"(\\t)"},
};

// \uXXXX for one UTF-16 unit, its hex digits in either case.
QString unicodeEscape(char16_t unit) {
    QString pattern = u"\\\\u"_s;
    for (const QChar digit : u"%1"_s.arg(uint(unit), 4, 16, QChar(u'0'))) {
        pattern +=
            digit.isLetter() ? u"[%1%2]"_s.arg(digit.toLower(), digit.toUpper()) : QString(digit);
    }
    return pattern;
}

// A secret as the tool may print it inside JSON text: each character as
// itself or as \uXXXX (a pair of them beyond the basic plane), and those JSON
// may shorten also as their short escapes.
QRegularExpression jsonSpellings(const QString& value) {
    QString pattern;
    for (const char32_t c : value.toUcs4()) {
        const QString character = QString::fromUcs4(&c, 1);
        QString escaped;
        for (const QChar unit : character) {
            escaped += unicodeEscape(unit.unicode());
        }
        QStringList ways{QRegularExpression::escape(character), escaped};
        for (const auto& [plain, shortEscape] : shortEscapes) {
            if (c == plain) {
                ways << QString::fromUtf16(shortEscape);
            }
        }
        pattern += u"(?:"_s + ways.join(u'|') + u')';
    }
    return QRegularExpression(pattern);
}

} // namespace

ConductorStep ConductorStep::decode(const QString& line) {
    const QByteArray utf8 = line.toUtf8();
    const auto value = nlohmann::json::parse(utf8.begin(), utf8.end(), nullptr, false);
    try {
        if (!value.is_object()) {
            throw DecodingError(u"Not a step."_s);
        }
        ConductorStep step;
        step.step = choose(value, "step", nameCases);
        step.state = choose(value, "state", stepStateCases);
        step.detail = QString::fromStdString(value.at("detail").get<std::string>());
        return step;
    } catch (const nlohmann::json::exception& error) {
        throw DecodingError(QString::fromUtf8(error.what()));
    }
}

QString ConductorStep::nameText(Name name) {
    for (const auto& [text, value] : nameCases) {
        if (value == name) {
            return QString::fromLatin1(text);
        }
    }
    return {};
}

namespace ConductorSecrets {

QString rawValue(ConductorSecret secret) {
    switch (secret) {
    case ConductorSecret::serviceToken:
        return u"service-token"_s;
    case ConductorSecret::v2Key:
        return u"v2-key"_s;
    case ConductorSecret::tunnelToken:
        return u"tunnel-token"_s;
    case ConductorSecret::tunnelIngressKey:
        return u"tunnel-ingress-key"_s;
    case ConductorSecret::tunnelID:
        return u"tunnel-id"_s;
    case ConductorSecret::agentID:
        return u"agent-id"_s;
    }
    return {};
}

QString label(ConductorSecret secret) {
    switch (secret) {
    case ConductorSecret::serviceToken:
        return u"Service token"_s;
    case ConductorSecret::v2Key:
        return u"V2 key"_s;
    case ConductorSecret::tunnelToken:
        return u"Tunnel token"_s;
    case ConductorSecret::tunnelIngressKey:
        return u"Tunnel ingress key"_s;
    case ConductorSecret::tunnelID:
        return u"Tunnel ID"_s;
    case ConductorSecret::agentID:
        return u"Agent ID"_s;
    }
    return {};
}

bool travelsAsFile(ConductorSecret secret) {
    return secret != ConductorSecret::tunnelID && secret != ConductorSecret::agentID;
}

} // namespace ConductorSecrets

ConductorSecretFiles::ConductorSecretFiles(const ConductorSecretValues& values,
                                           const QString& root) {
    PrivateFolder::make(root);
    const QString directory = root + u'/' + QUuid::createUuid().toString(QUuid::WithoutBraces);
    if (::mkdir(QFile::encodeName(directory).constData(), 0700) != 0) {
        throw TesselError(credentialFileFailure);
    }
    directory_ = directory;
    try {
        for (const ConductorSecret secret : ConductorSecrets::all) {
            const auto value = values.find(secret);
            if (value == values.end() || value->second.isEmpty()) {
                continue;
            }
            const QString name = ConductorSecrets::rawValue(secret);
            if (!ConductorSecrets::travelsAsFile(secret)) {
                arguments_ << u"--"_s + name << value->second;
                continue;
            }
            const QString path = directory_ + u'/' + name;
            writeSecret(path, value->second);
            arguments_ << u"--"_s + name + u"-file"_s << path;
        }
    } catch (...) {
        QDir(directory_).removeRecursively();
        throw;
    }
}

ConductorSecretFiles::~ConductorSecretFiles() {
    QDir(directory_).removeRecursively();
}

void ConductorSecretFiles::remove() {
    if (!QDir(directory_).removeRecursively()) {
        throw TesselError(
            u"Could not remove the private directory %1 — delete it by hand."_s.arg(directory_));
    }
}

Redactor::Redactor(const ConductorSecretValues& values) {
    QStringList plain;
    for (const auto& [secret, value] : values) {
        if (!value.isEmpty()) {
            plain << value;
        }
    }
    std::stable_sort(plain.begin(), plain.end(),
                     [](const QString& a, const QString& b) { return a.size() > b.size(); });
    for (const QString& value : plain) {
        values_.push_back({value, jsonSpellings(value)});
    }
}

QString Redactor::operator()(QString text) const {
    for (const auto& [value, spellings] : values_) {
        text.replace(value, u"[redacted]"_s);
        text.replace(spellings, u"[redacted]"_s);
    }
    return text;
}

bool Redactor::reveals(const QString& text) const {
    return std::any_of(values_.begin(), values_.end(), [&text](const auto& secret) {
        return text.contains(secret.first) || text.contains(secret.second);
    });
}

ConductorSetupModel::ConductorSetupModel(InfraTool tool, QString tempRoot, QObject* parent)
    : QObject(parent), notInstalled_(std::move(tool.notInstalled)), runner_(tool.resolve()),
      tempRoot_(std::move(tempRoot)) {}

bool ConductorSetupModel::isValidSlug(const QString& slug) {
    if (slug.isEmpty() || slug.startsWith(u'-')) {
        return false;
    }
    return std::all_of(slug.begin(), slug.end(), [](QChar c) {
        return (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || c == u'-';
    });
}

QString ConductorSetupModel::defaultTempRoot(const QProcessEnvironment& environment,
                                             const QString& dataDirectory) {
    const QString runtime = environment.value(u"XDG_RUNTIME_DIR"_s);
    const QString base = runtime.startsWith(u'/') ? runtime : dataDirectory;
    return base + u"/Velmora/tmp"_s;
}

void ConductorSetupModel::reset() {
    if (isRunning_) {
        return;
    }
    steps_.clear();
    failure_.reset();
    openURL_.reset();
    succeeded_ = false;
    wasDryRun_ = false;
    emit changed();
}

void ConductorSetupModel::receiveLine(const QString& line, const Redactor& redact) {
    if (line.trimmed().isEmpty() || failure_) {
        return;
    }
    try {
        ConductorStep step = ConductorStep::decode(line);
        step.detail = redact(step.detail);
        receive(std::move(step));
    } catch (const DecodingError&) {
        failure_ = redact(line.trimmed());
        emit changed();
    }
}

void ConductorSetupModel::receive(ConductorStep step) {
    if (failure_) {
        return;
    }
    steps_.removeIf([&step](const ConductorStep& s) { return s.step == step.step; });
    steps_ << step;
    std::stable_sort(
        steps_.begin(), steps_.end(),
        [](const ConductorStep& a, const ConductorStep& b) { return a.step < b.step; });
    if (step.state == ConductorStep::State::failed) {
        failure_ = step.detail;
    }
    emit changed();
}

bool ConductorSetupModel::stepsSucceeded() const {
    const auto good = [](const ConductorStep& s) {
        return s.state == ConductorStep::State::done || s.state == ConductorStep::State::skipped;
    };
    const auto verify = [](const ConductorStep& s) {
        return s.step == ConductorStep::Name::verify;
    };
    return !steps_.isEmpty() && std::all_of(steps_.begin(), steps_.end(), good) &&
           std::any_of(steps_.begin(), steps_.end(), verify);
}

Task<void> ConductorSetupModel::run(QString orgHost, QUrl orgURL, QString slug, qint64 port,
                                    ConductorSecretValues secrets, bool dryRun, Refresh refresh) {
    if (isRunning_) {
        co_return;
    }
    reset();
    if (!runner_) {
        failure_ = notInstalled_;
        emit changed();
        co_return;
    }
    if (!isValidSlug(slug) || port < 1 || port > 65535) {
        failure_ = validationFailure;
        emit changed();
        co_return;
    }
    isRunning_ = true;
    wasDryRun_ = dryRun;
    emit changed();

    // Everything the run needs after a wait lives here, not in the model: the
    // model may go while the tool runs, and the directory must go all the same.
    const auto redact = std::make_shared<const Redactor>(secrets);
    std::unique_ptr<ConductorSecretFiles> files;
    try {
        files = std::make_unique<ConductorSecretFiles>(secrets, tempRoot_);
    } catch (const Failure& failure) {
        failure_ = (*redact)(failure.description());
        isRunning_ = false;
        emit changed();
        co_return;
    }
    QStringList arguments{u"setup"_s,     slug,
                          u"--org-url"_s, orgURL.toString(QUrl::FullyEncoded),
                          u"--port"_s,    QString::number(port)};
    arguments << files->arguments();
    if (dryRun) {
        arguments << u"--dry-run"_s;
    }
    arguments << u"--json"_s;

    QPointer<ConductorSetupModel> self(this);
    const LineCallback onLine = [self, redact](QString line) {
        if (self) {
            self->receiveLine(line, *redact);
        }
        return nothing();
    };
    const StreamingToolRunner runner = *runner_;
    std::optional<ToolOutput> output;
    std::optional<QString> failed;
    bool cancelled = false;
    try {
        const CancellationToken never;
        output = co_await runner(arguments, onLine, never);
    } catch (const Cancelled&) {
        cancelled = true;
    } catch (const Failure& failure) {
        failed = failure.description();
    } catch (const std::exception& error) {
        failed = QString::fromUtf8(error.what());
    }
    try {
        files->remove();
    } catch (const Failure& failure) {
        failed = failed.value_or(failure.description());
    }
    if (!self || cancelled) {
        if (self) {
            isRunning_ = false;
            emit changed();
        }
        co_return;
    }

    if (failure_) {
        // A line already failed the run.
    } else if (failed) {
        failure_ = (*redact)(*failed);
    } else if (output->exitCode != 0) {
        const QString last = steps_.isEmpty() ? QString() : steps_.last().detail;
        failure_ = last.isEmpty() ? (*redact)(toolFailureText(*output)) : last;
    } else if (!stepsSucceeded()) {
        failure_ = noVerificationFailure;
    } else {
        succeeded_ = true;
        emit changed();
        if (!dryRun) {
            try {
                co_await refresh();
            } catch (...) {
                // Rereading the infrastructure is the caller's business; it
                // shows its own failures.
            }
            if (!self) {
                co_return;
            }
            const LineCallback ignore = [](QString) { return nothing(); };
            std::optional<ToolOutput> status;
            try {
                const QStringList statusJSON{u"status"_s, u"--json"_s};
                const CancellationToken never;
                status = co_await runner(statusJSON, ignore, never);
            } catch (const Cancelled&) {
                // Nothing to show for a read that was called off.
            } catch (const Failure& failure) {
                failed = failure.description();
            } catch (const std::exception& error) {
                failed = QString::fromUtf8(error.what());
            }
            if (!self) {
                co_return;
            }
            if (status && status->exitCode != 0) {
                failed = toolFailureText(*status);
            } else if (status) {
                try {
                    const auto report = InfraStatus::decode(status->standardOutput.toUtf8());
                    const auto row = report.organisation(orgHost);
                    const auto url = row ? row->openURL() : std::nullopt;
                    if (url && !redact->reveals(url->toString(QUrl::FullyEncoded)) &&
                        !redact->reveals(*row->conductor.openURL)) {
                        openURL_ = url;
                    }
                } catch (const Failure& failure) {
                    failed = failure.description();
                }
            }
            if (failed) {
                failure_ = (*redact)(*failed);
            }
        }
    }
    try {
        files->remove();
    } catch (const Failure&) {
        // Removed once already; a second failure adds nothing to tell.
    }
    isRunning_ = false;
    emit changed();
}

} // namespace tessel
