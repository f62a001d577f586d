#include "net/HTTPFailure.h"

#include "errors/ErrorPresentation.h"
#include "net/JSON.h"

#include <QRegularExpression>
#include <QStringDecoder>

#include <array>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

const QString generic400Line =
    u"The server refused this request. Check the call details and try again."_s;

bool startsWithUpperCaseLetter(const QString& text) {
    if (text.isEmpty()) {
        return false;
    }
    char32_t first = text.at(0).unicode();
    if (text.size() > 1 && QChar::isHighSurrogate(first) && text.at(1).isLowSurrogate()) {
        first = QChar::surrogateToUcs4(text.at(0), text.at(1));
    }
    return QChar::isUpper(first);
}

QString stripSentencePunctuation(QString text) {
    const auto isMark = [](QChar c) { return c == u'.' || c == u'!' || c == u'?'; };
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && isMark(text.at(begin))) {
        ++begin;
    }
    while (end > begin && isMark(text.at(end - 1))) {
        --end;
    }
    return text.mid(begin, end - begin);
}

} // namespace

const QString HTTPFailure::sessionIdleLine =
    u"Your sign-in timed out after an hour of inactivity. Sign in again — your audio is safe."_s;
const QString HTTPFailure::signInLine =
    u"Your sign-in is no longer valid. Sign in again — your audio is safe."_s;
const QString HTTPFailure::serverUnavailableLine =
    u"The server can't take audio right now. Keep this app open; it retries by itself."_s;
const QString HTTPFailure::fallbackLine =
    u"Something went wrong talking to the server. Details below."_s;

HTTPFailure::HTTPFailure(qint64 status, QString detail, QString path)
    : status(status), detail(std::move(detail)), path(std::move(path)) {
    JSON body;
    try {
        body = JSON::parse(this->detail.toUtf8());
    } catch (const DecodingError&) {
        // Not JSON: whatever the server wrote is its message.
        serverMessage = this->detail;
        return;
    }
    if (!body.isObject()) {
        return;
    }
    // Each field takes the first source of the right kind; a source of another
    // kind is passed over, never an error.
    const JSON& error = body["error"];
    code = error["code"].string();
    if (!code) {
        code = error.string();
    }
    for (const JSON* source :
         {&error["message"], &body["message"], &body["error_description"], &error}) {
        if ((serverMessage = source->string())) {
            break;
        }
    }
    agentHint = error["details"]["agent"].string();
}

QString HTTPFailure::humanLine() const {
    if (status >= 400 && status <= 499 && serverMessage &&
        startsWithUpperCaseLetter(*serverMessage) && serverMessage->endsWith(u'.') &&
        ErrorPresentation::isHumanText(*serverMessage)) {
        return *serverMessage;
    }
    if (code == u"session_idle"_s) {
        return sessionIdleLine;
    }
    if (code == u"session_expired"_s || code == u"session_revoked"_s) {
        return signInLine;
    }
    switch (status) {
    case 400: {
        if (!serverMessage || !ErrorPresentation::isHumanText(*serverMessage)) {
            return generic400Line;
        }
        const QString reason =
            stripSentencePunctuation(ErrorPresentation::firstSentence(*serverMessage));
        return reason.isEmpty() ? generic400Line
                                : u"The server refused this request: "_s + reason + u'.';
    }
    case 401:
        return signInLine;
    case 403:
        return isHostRefusal() ? u"You are signed in, but not as the host of this call."_s
                               : signInLine;
    case 404:
        return u"That call no longer exists on the server."_s;
    case 409:
        return u"That already happened (the call was stopped elsewhere). Refreshing."_s;
    case 502:
    case 503:
        return serverUnavailableLine;
    default:
        return fallbackLine;
    }
}

QString HTTPFailure::detailLine() const {
    QString line = u"HTTP %1 · %2 · %3 · %4"_s.arg(
        QString::number(status), code.value_or(u"unknown"_s), serverMessage.value_or(detail), path);
    if (agentHint) {
        line += u" · agent: "_s + *agentHint;
    }
    return line;
}

QString HTTPFailure::bodyText(const QByteArray& body) {
    // QString::fromUtf8 would quietly substitute bad bytes; a stateless decoder
    // also flags a sequence cut off at the end.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder(body);
    if (decoder.hasError()) {
        return u"Unreadable response"_s;
    }
    return text;
}

bool HTTPFailure::isHostRefusal() const {
    // Pieces are runs of letters; a combining mark stays with its letter, so "hóst"
    // written with a separate accent is not "host".
    static thread_local const QRegularExpression nonLetters(u"[^\\p{L}\\p{M}]+"_s);
    if (code && code->toLower().split(nonLetters, Qt::SkipEmptyParts).contains(u"host"_s)) {
        return true;
    }

    static const std::array<QString, 14> phrases{
        u"not host"_s,      u"not the host"_s, u"not a host"_s,       u"host only"_s,
        u"only the host"_s, u"only hosts"_s,   u"host required"_s,    u"host session"_s,
        u"host access"_s,   u"host role"_s,    u"must be the host"_s, u"must be host"_s,
        u"meeting host"_s,  u"call host"_s};
    QString text = (code.value_or(QString()) + u' ' + serverMessage.value_or(QString())).toLower();
    text.replace(u'_', u' ').replace(u'-', u' ');
    for (const QString& phrase : phrases) {
        if (text.contains(phrase)) {
            return true;
        }
    }
    return false;
}

} // namespace tessel
