// The few failure types the system throws. Nothing returns error codes: a
// component below the views throws one of these, and the place that shows it
// turns it into words once, through ErrorPresentation.
#pragma once

#include <QByteArray>
#include <QString>
#include <exception>

namespace tessel {

// Base of every failure thrown on purpose. `description()` is what a user could
// read (the platform's "localized description"); `typeName()` and `errorCode()` feed
// the technical line.
class Failure : public std::exception {
public:
    virtual QString description() const = 0;
    virtual QString typeName() const = 0;
    virtual qint64 errorCode() const { return 0; }
    const char* what() const noexcept override;

private:
    mutable QByteArray whatCache_;
};

// The plain failure: one message meant for the user.
class TesselError : public Failure {
public:
    explicit TesselError(QString message) : message_(std::move(message)) {}
    const QString& message() const { return message_; }
    QString description() const override { return message_; }
    QString typeName() const override { return QStringLiteral("tessel::TesselError"); }

private:
    QString message_;
};

// A transport failure: time-out, refused connection, TLS, a dropped connection.
// `code` is one of the kinds below; the numbers stay those that technical lines
// and logs have always shown for them.
class URLError : public Failure {
public:
    enum Code {
        connectionRefused = 1,
        connectionClosed = 2, // closed or reset before a whole answer arrived
        hostNotFound = 3,
        timedOut = 4,
        tlsFailed = 6,
        unknownNetwork = 99,
        proxyFailed = 199,
        protocolFailure = 399,
    };

    URLError(int code, QString text) : code_(code), text_(std::move(text)) {}
    QString description() const override { return text_; }
    QString typeName() const override { return QStringLiteral("tessel::URLError"); }
    qint64 errorCode() const override { return code_; }

private:
    int code_;
    QString text_;
};

// A body that should have been JSON of a known shape and was not.
class DecodingError : public Failure {
public:
    explicit DecodingError(QString text) : text_(std::move(text)) {}
    QString description() const override { return text_; }
    QString typeName() const override { return QStringLiteral("tessel::DecodingError"); }
    qint64 errorCode() const override { return 4864; }

private:
    QString text_;
};

// What the sound server refused or could not give.
class AudioCaptureError : public Failure {
public:
    enum class Kind { systemAudioStartFailed, microphonePermissionDenied };

    static AudioCaptureError systemAudioStartFailed(QString reason) {
        return AudioCaptureError(Kind::systemAudioStartFailed, std::move(reason));
    }
    static AudioCaptureError microphonePermissionDenied() {
        return AudioCaptureError(Kind::microphonePermissionDenied, {});
    }

    Kind kind() const { return kind_; }
    const QString& reason() const { return reason_; }
    QString description() const override;
    QString settingsButtonTitle() const;
    QString typeName() const override { return QStringLiteral("tessel::AudioCaptureError"); }
    qint64 errorCode() const override { return static_cast<qint64>(kind_); }

private:
    AudioCaptureError(Kind kind, QString reason) : kind_(kind), reason_(std::move(reason)) {}
    Kind kind_;
    QString reason_;
};

// A cancelled wait or request. Never a failure to show: passed on, recorded
// nowhere. Deliberately not a Failure so that `catch (const Failure&)` skips it.
class Cancelled : public std::exception {
public:
    const char* what() const noexcept override { return "cancelled"; }
};

// The failure of type `E` that `error` holds, or null. The object lives as
// long as `error` does.
template <typename E> const E* failureAs(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const E& failure) {
        return &failure;
    } catch (...) {
        return nullptr;
    }
}

// A cancellation is passed on and never shown or logged.
bool isCancellation(const std::exception_ptr& error);

// A failure's own words, as a person or a log reader sees them. `error` holds
// something; `unknown` stands in for a thrown value that is no exception,
// since each caller's reader expects its own words there.
QString describeFailure(const std::exception& error);
QString describeFailure(const std::exception_ptr& error, const QString& unknown);

} // namespace tessel
