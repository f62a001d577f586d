// Small pieces shared by the parts of the server.
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <string>

namespace devserver {

using nlohmann::json;

// An answer of the meet API before it becomes an HTTP response.
struct Reply {
    int status = 200;
    json body = json::object();
};

// The meet server's error form: {"error":{"code":..,"message":..}}.
Reply errorReply(int status, std::string code, std::string message);

// JSON text of a value. Client bytes end up in the log, so invalid UTF-8 is
// replaced rather than thrown on.
std::string dump(const json& value);

// `bytes` random bytes as lower-case hex, for ids and secrets.
std::string randomHex(std::size_t bytes);

// Wall-clock time as ISO 8601 in UTC with milliseconds: 2026-11-23T05:00:00.123Z.
std::string isoNow();

// Text made safe inside an HTML or XML element or a quoted attribute.
std::string markupEscaped(const std::string& text);

} // namespace devserver
