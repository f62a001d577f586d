// The one mapping from a thrown failure to what a person reads: a calm sentence
// and a technical line. Pure: it looks at the failure and changes nothing.
#pragma once

#include <QString>
#include <exception>
#include <optional>

namespace tessel {

struct ErrorPresentation {
    QString humanLine;
    QString detailLine;

    ErrorPresentation() = default;
    ErrorPresentation(QString human, QString detail)
        : humanLine(std::move(human)), detailLine(std::move(detail)) {}

    // Any failure, with the request path when one is known.
    static ErrorPresentation from(const std::exception& error,
                                  const std::optional<QString>& path = std::nullopt);
    static ErrorPresentation from(const std::exception_ptr& error,
                                  const std::optional<QString>& path = std::nullopt);

    // The lines for a failed sign-in, given what the HTTP client last recorded.
    static ErrorPresentation signInFailure(const std::exception& error,
                                           const std::optional<ErrorPresentation>& diagnostic);

    // Whether a server's or tool's text may reach a person unchanged.
    static bool isHumanText(const QString& text);
    static QString firstSentence(const QString& text);

    void log() const;

    bool operator==(const ErrorPresentation&) const = default;
};

} // namespace tessel
