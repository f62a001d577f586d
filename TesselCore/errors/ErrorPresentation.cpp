#include "errors/ErrorPresentation.h"

#include "errors/ErrorLog.h"
#include "errors/Failures.h"
#include "net/HTTPFailure.h"

#include <QRegularExpression>

#include <array>
#include <cstdlib>
#include <cxxabi.h>
#include <typeinfo>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

const QString genericLine = u"Something went wrong. Try again; details are below."_s;

// Unicode-aware like the original platform's expressions: \w, \s, \d and \b see
// letters of every script, not only ASCII.
constexpr auto patternOptions =
    QRegularExpression::CaseInsensitiveOption | QRegularExpression::UseUnicodePropertiesOption;

QString demangled(const char* name) {
    int status = 0;
    char* readable = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    QString result = QString::fromUtf8(status == 0 && readable ? readable : name);
    std::free(readable);
    return result;
}

QString textOf(const std::exception& error) {
    if (const auto* failure = dynamic_cast<const Failure*>(&error)) {
        return failure->description();
    }
    return QString::fromUtf8(error.what());
}

QString humanLineFor(const std::exception& error, const QString& text) {
    if (dynamic_cast<const URLError*>(&error)) {
        return HTTPFailure::serverUnavailableLine;
    }
    if (const auto* audio = dynamic_cast<const AudioCaptureError*>(&error)) {
        if (audio->kind() == AudioCaptureError::Kind::systemAudioStartFailed) {
            return u"System audio could not start — check that PulseAudio or PipeWire is running "
                   u"and choose an output device in the desktop's sound settings, then start a "
                   u"new call."_s;
        }
        return text;
    }
    if (dynamic_cast<const DecodingError*>(&error)) {
        return u"The server sent an unexpected response. Try again; details are below."_s;
    }
    if (text.contains(u"keyring refused"_s)) {
        return u"Your saved sign-in could not be opened — unlock your login keyring (GNOME "
               u"Keyring or KWallet), allow Velmora Tessel access, and sign in again."_s;
    }
    if (text.contains(u"vses_"_s) || text.startsWith(u"Sign-in refused:"_s)) {
        return u"Sign-in could not finish. Choose Sign in to try again."_s;
    }
    // "(audio status N)" is how checkAudio words a sound server's or FFmpeg's status.
    if (text.contains(u"(audio status "_s) || text.contains(u"AAC"_s) || text.contains(u"PCM"_s)) {
        return u"Audio could not be recorded — check your audio device and permissions, then "
               u"start a new call."_s;
    }
    if (text.startsWith(u"The server response is missing"_s)) {
        return u"The server sent an incomplete response. Try again; details are below."_s;
    }
    if (text.startsWith(u"The upload URL"_s) ||
        text.startsWith(u"The storage service did not request"_s)) {
        return HTTPFailure::serverUnavailableLine;
    }
    if (text.startsWith(u"The sign-in response has an unexpected verification URL"_s)) {
        return u"The sign-in page could not be opened. Choose Sign in to try again."_s;
    }
    if (dynamic_cast<const TesselError*>(&error) && ErrorPresentation::isHumanText(text)) {
        return ErrorPresentation::firstSentence(text);
    }
    return genericLine;
}

QString withPath(QString line, const std::optional<QString>& path) {
    if (path) {
        line += u" · "_s + *path;
    }
    return line;
}

} // namespace

ErrorPresentation ErrorPresentation::from(const std::exception& error,
                                          const std::optional<QString>& path) {
    if (const auto* http = dynamic_cast<const HTTPFailure*>(&error)) {
        // The failure carries its own path.
        return {http->humanLine(), http->detailLine()};
    }
    const QString text = textOf(error);
    QString detail;
    if (dynamic_cast<const TesselError*>(&error)) {
        detail = text;
    } else if (const auto* failure = dynamic_cast<const Failure*>(&error)) {
        detail =
            u"%1 · %2 · %3"_s.arg(failure->typeName(), QString::number(failure->errorCode()), text);
    } else {
        detail = u"%1 · 0 · %2"_s.arg(demangled(typeid(error).name()), text);
    }
    return {humanLineFor(error, text), withPath(std::move(detail), path)};
}

ErrorPresentation ErrorPresentation::from(const std::exception_ptr& error,
                                          const std::optional<QString>& path) {
    QString thrown = u"nothing"_s;
    if (error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& failure) {
            return from(failure, path);
        } catch (...) {
            const std::type_info* type = abi::__cxa_current_exception_type();
            thrown = type ? demangled(type->name()) : u"an unknown type"_s;
        }
    }
    return {genericLine, withPath(u"unknown · 0 · thrown value of "_s + thrown, path)};
}

ErrorPresentation
ErrorPresentation::signInFailure(const std::exception& error,
                                 const std::optional<ErrorPresentation>& diagnostic) {
    ErrorPresentation base = from(error);
    if (!diagnostic) {
        return base;
    }
    if (dynamic_cast<const HTTPFailure*>(&error) || dynamic_cast<const URLError*>(&error) ||
        textOf(error).startsWith(u"Sign-in refused:"_s)) {
        // What the transport recorded about the request says more than the failure.
        return *diagnostic;
    }
    base.detailLine += u"\nLast response: "_s + diagnostic->detailLine;
    return base;
}

bool ErrorPresentation::isHumanText(const QString& text) {
    if (text.trimmed().isEmpty()) {
        return false;
    }
    static const std::array<QString, 13> markers{
        u"{"_s,   u"}"_s,    u"["_s,  u"]"_s,  u"http"_s, u"token"_s, u"api key"_s,
        u"://"_s, u"www."_s, u"\n"_s, u"\r"_s, u"<"_s,    u">"_s};
    const QString lower = text.toLower();
    for (const QString& marker : markers) {
        if (lower.contains(marker)) {
            return false;
        }
    }
    // A host with a path or a bare domain; a status code spelled out.
    // thread_local: one compiled copy per thread, nothing shared to race on.
    static thread_local const QRegularExpression address(
        uR"(\b[\w-]+(?:\.[\w-]+)+/\S*|\b[\w-]+\.(?:com|ai|org|net|dev|io)\b)"_s, patternOptions);
    static thread_local const QRegularExpression statusCode(
        uR"(\b(?:status|error|code)\s*:?\s*[1-5]\d\d\b)"_s, patternOptions);
    return !address.match(text).hasMatch() && !statusCode.match(text).hasMatch();
}

QString ErrorPresentation::firstSentence(const QString& text) {
    const QString trimmed = text.trimmed();
    // No list of abbreviations: "e.g. " ends a sentence like any other full stop.
    static thread_local const QRegularExpression sentenceEnd(uR"([.!?](?:\s|$))"_s, patternOptions);
    const QRegularExpressionMatch end = sentenceEnd.match(trimmed);
    if (!end.hasMatch()) {
        return trimmed;
    }
    return trimmed.left(end.capturedStart() + 1);
}

void ErrorPresentation::log() const {
    tessel::log::error(detailLine);
}

} // namespace tessel
