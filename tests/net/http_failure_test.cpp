// A refused request: what is read out of the body and which sentence it earns.
#include "net/HTTPFailure.h"

#include <QStringList>

#include <gtest/gtest.h>

using namespace tessel;
using namespace Qt::StringLiterals;

namespace {

// What a failure read out of its body, absent fields left out.
QString readOut(const HTTPFailure& failure) {
    QStringList parts;
    for (const auto& [name, value] :
         {std::pair{u"code"_s, failure.code}, std::pair{u"message"_s, failure.serverMessage},
          std::pair{u"agent"_s, failure.agentHint}}) {
        if (value) {
            parts << name + u"="_s + *value;
        }
    }
    return parts.join(u"|"_s);
}

TEST(HTTPFailureTest, ReadsCodeMessageAndHintOutOfTheBody) {
    const std::pair<QString, QString> cases[] = {
        {uR"({"error": "bad_thing"})"_s, u"code=bad_thing|message=bad_thing"_s},
        {uR"({"error": {"code": "c1", "message": "M.", "details": {"agent": "retry later"}}})"_s,
         u"code=c1|message=M.|agent=retry later"_s},
        {uR"({"error": "c2", "message": "Top."})"_s, u"code=c2|message=Top."_s},
        {uR"({"message": 42, "error_description": "Described."})"_s, u"message=Described."_s},
        {uR"({"error": {"code": 7, "details": {"agent": 1}}})"_s, u""_s},
        {uR"({"error": {"message": "Inner."}, "message": "Outer."})"_s, u"message=Inner."_s},
        {uR"([{"error": "x"}])"_s, u""_s},
        {u"Bad Gateway\n"_s, u"message=Bad Gateway\n"_s},
        {u""_s, u"message="_s},
    };
    for (const auto& [body, read] : cases) {
        const HTTPFailure failure(400, body, u"/p"_s);
        EXPECT_EQ(failure.detail, body);
        EXPECT_EQ(readOut(failure), read) << body.toStdString();
    }
}

TEST(HTTPFailureTest, BodyTextRefusesAnythingButUTF8) {
    EXPECT_EQ(HTTPFailure::bodyText(QByteArray("caf\xc3\xa9")), u"café"_s);
    EXPECT_EQ(HTTPFailure::bodyText(QByteArray()), u""_s);
    const QByteArray unreadable[] = {
        QByteArray("\xff\xfe bad"),
        QByteArray("cut \xe2\x82"),     // sequence cut off at the end
        QByteArray("\xc0\xaf"),         // overlong slash
        QByteArray("\xed\xa0\x80"),     // an encoded surrogate
        QByteArray("\xf4\x90\x80\x80"), // past U+10FFFF
    };
    for (const QByteArray& body : unreadable) {
        EXPECT_EQ(HTTPFailure::bodyText(body), u"Unreadable response"_s) << body.toHex().data();
    }
}

QString errorBody(const QString& code, const QString& message) {
    return uR"({"error": {"code": "%1", "message": "%2"}})"_s.arg(code, message);
}

QString messageBody(const QString& message) {
    return uR"({"message": "%1"})"_s.arg(message);
}

TEST(HTTPFailureTest, HumanLineFollowsTheFirstRuleThatFits) {
    const QString generic400 =
        u"The server refused this request. Check the call details and try again."_s;
    const QString hostLine = u"You are signed in, but not as the host of this call."_s;
    struct Case {
        qint64 status;
        QString body;
        QString line;
    };
    const Case cases[] = {
        // A proper sentence from the server, 4xx only.
        {422, messageBody(u"Title is required."_s), u"Title is required."_s},
        {422, messageBody(u"Title is required"_s), HTTPFailure::fallbackLine},
        {500, messageBody(u"Title is required."_s), HTTPFailure::fallbackLine},
        {422, messageBody(u"title is required."_s), HTTPFailure::fallbackLine},
        {422, messageBody(u"See https://x.io/help."_s), HTTPFailure::fallbackLine},
        {422, messageBody(u"Error: 422 happened."_s), HTTPFailure::fallbackLine},
        // Session codes at any status, below a proper sentence.
        {500, errorBody(u"session_idle"_s, u"idle"_s), HTTPFailure::sessionIdleLine},
        {200, errorBody(u"session_expired"_s, u"x"_s), HTTPFailure::signInLine},
        {401, errorBody(u"session_idle"_s, u"Your session idled."_s), u"Your session idled."_s},
        // 400 quotes the first sentence of a human message.
        {400, messageBody(u"title missing"_s),
         u"The server refused this request: title missing."_s},
        {400, messageBody(u"Bad title! Fix it. Then retry"_s),
         u"The server refused this request: Bad title."_s},
        {400, messageBody(u"...title?!"_s), u"The server refused this request: title."_s},
        {400, messageBody(u"..."_s), generic400},
        {400, messageBody(u"bad token"_s), generic400},
        {400, uR"({"detail": "no message"})"_s, generic400},
        // 403: a host refusal, "host" as a word of the code or message, or sign in.
        {403, messageBody(u"Only the host can stop this call."_s),
         u"Only the host can stop this call."_s},
        {403, errorBody(u"not_host"_s, u"x"_s), hostLine},
        {403, errorBody(u"HOST"_s, u"x"_s), hostLine},
        {403, errorBody(u"room9host"_s, u"x"_s), hostLine},
        {403, errorBody(u"ghost_call"_s, u"x"_s), HTTPFailure::signInLine},
        {403, errorBody(u"hosted"_s, u"x"_s), HTTPFailure::signInLine},
        {403, messageBody(u"requires meeting-host role"_s), hostLine},
        {403, uR"({"error": "only_hosts"})"_s, hostLine},
        {403, messageBody(u"forbidden"_s), HTTPFailure::signInLine},
        // By status.
        {404, u""_s, u"That call no longer exists on the server."_s},
        {409, u""_s, u"That already happened (the call was stopped elsewhere). Refreshing."_s},
        {503, u"<html>down</html>"_s, HTTPFailure::serverUnavailableLine},
        {429, u""_s, HTTPFailure::fallbackLine},
    };
    for (const Case& c : cases) {
        const HTTPFailure failure(c.status, c.body, u"/p"_s);
        EXPECT_EQ(failure.humanLine(), c.line) << c.status << " " << c.body.toStdString();
        EXPECT_EQ(failure.description(), c.line);
    }
}

TEST(HTTPFailureTest, DetailLineKeepsTheFacts) {
    EXPECT_EQ(HTTPFailure(409,
                          uR"({"error": {"code": "already_stopped", "message": "Stopped.", )"
                          uR"("details": {"agent": "GET the call first"}}})"_s,
                          u"/v1/calls/7/stop"_s)
                  .detailLine(),
              u"HTTP 409 · already_stopped · Stopped. · /v1/calls/7/stop · agent: GET the call "
              u"first"_s);
    // No message in the body: the whole body stands in for it.
    EXPECT_EQ(HTTPFailure(400, u"[1]"_s, u"/x"_s).detailLine(), u"HTTP 400 · unknown · [1] · /x"_s);
}

} // namespace
