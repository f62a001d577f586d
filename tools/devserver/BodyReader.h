// Reads the fields of a JSON request body and keeps the first thing wrong with
// it, so a handler reads all its fields in a row and checks once at the end.
#pragma once

#include "Support.h"

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace devserver {

class BodyReader {
public:
    // A key outside `allowed` is itself a problem: a client that sends what the
    // server doesn't know has a bug worth seeing.
    BodyReader(const json& body, std::initializer_list<std::string_view> allowed);

    std::string text(std::string_view key);
    std::optional<std::string> optionalText(std::string_view key);
    bool flag(std::string_view key);
    json number(std::string_view key);
    // A whole number above zero (byte counts).
    long long positive(std::string_view key);

    // Records a 422 for `key` unless an earlier problem was recorded.
    void reject(std::string_view key, std::string message);

    const std::optional<Reply>& problem() const { return problem_; }

private:
    const json* field(std::string_view key, bool required);

    const json& body_;
    std::optional<Reply> problem_;
};

} // namespace devserver
