#include "BodyReader.h"

#include <algorithm>
#include <cmath>

namespace devserver {

BodyReader::BodyReader(const json& body, std::initializer_list<std::string_view> allowed)
    : body_(body) {
    if (!body_.is_object()) {
        problem_ = errorReply(400, "invalid_json", "Request body must be a JSON object.");
        return;
    }
    for (const auto& [key, value] : body_.items()) {
        if (std::find(allowed.begin(), allowed.end(), key) == allowed.end()) {
            reject(key, "Unknown field: " + key + ".");
            return;
        }
    }
}

const json* BodyReader::field(std::string_view key, bool required) {
    if (problem_) {
        return nullptr;
    }
    const auto found = body_.find(key);
    if (found == body_.end()) {
        if (required) {
            reject(key, std::string(key) + " is required.");
        }
        return nullptr;
    }
    return &*found;
}

std::string BodyReader::text(std::string_view key) {
    const json* value = field(key, true);
    if (value && !value->is_string()) {
        reject(key, std::string(key) + " must be a string.");
    }
    return value && value->is_string() ? value->get<std::string>() : std::string();
}

std::optional<std::string> BodyReader::optionalText(std::string_view key) {
    const json* value = field(key, false);
    if (!value) {
        return std::nullopt;
    }
    if (!value->is_string()) {
        reject(key, std::string(key) + " must be a string.");
        return std::nullopt;
    }
    return value->get<std::string>();
}

bool BodyReader::flag(std::string_view key) {
    const json* value = field(key, true);
    if (value && !value->is_boolean()) {
        reject(key, std::string(key) + " must be true or false.");
    }
    return value && value->is_boolean() && value->get<bool>();
}

json BodyReader::number(std::string_view key) {
    const json* value = field(key, true);
    if (value && !value->is_number()) {
        reject(key, std::string(key) + " must be a number.");
    }
    return value && value->is_number() ? *value : json();
}

long long BodyReader::positive(std::string_view key) {
    const json value = number(key);
    if (value.is_null()) {
        return 0;
    }
    const double n = value.get<double>();
    if (n < 1 || n != std::floor(n) || n > 9e15) {
        reject(key, std::string(key) + " must be a whole number above zero.");
        return 0;
    }
    return static_cast<long long>(n);
}

void BodyReader::reject(std::string_view key, std::string message) {
    if (problem_) {
        return;
    }
    const std::string code =
        message.starts_with("Unknown field") ? "unknown_field" : "validation_failed";
    problem_ = errorReply(422, code, std::move(message));
    problem_->body["error"]["field"] = std::string(key);
}

} // namespace devserver
