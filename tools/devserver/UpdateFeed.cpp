#include "UpdateFeed.h"

#include <openssl/sha.h>

#include <cstdio>

namespace devserver {

namespace {

std::string sha256Hex(const std::string& bytes) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
    std::string out;
    char hex[3];
    for (unsigned char byte : digest) {
        std::snprintf(hex, sizeof hex, "%02x", byte);
        out += hex;
    }
    return out;
}

} // namespace

void UpdateFeed::setOrigin(const std::string& origin) {
    std::lock_guard lock(mutex_);
    origin_ = origin;
}

std::optional<std::string> UpdateFeed::route(const std::string& path) {
    if (path == "/update/feed.json") {
        return "update_feed";
    }
    if (path == "/update/image") {
        return "update_image";
    }
    return std::nullopt;
}

void UpdateFeed::serve(const std::string& route, httplib::Response& response) {
    std::lock_guard lock(mutex_);
    if (route == "update_image") {
        response.status = 200;
        response.set_content(image_, "application/octet-stream");
        return;
    }
    const json feed{{"version", version_},
                    {"url", origin_ + "/update/image"},
                    {"sha256", sha256_.value_or(sha256Hex(image_))},
                    {"notes", notes_}};
    response.status = 200;
    response.set_content(dump(feed), "application/json");
}

Reply UpdateFeed::control(const json& body) {
    const auto text = [&](const char* key) -> std::optional<std::string> {
        const auto found = body.find(key);
        return found != body.end() && found->is_string() ? std::optional(found->get<std::string>())
                                                         : std::nullopt;
    };
    if (!text("version") || !text("image")) {
        return errorReply(400, "invalid_control", "version and image are required texts.");
    }
    std::lock_guard lock(mutex_);
    version_ = *text("version");
    image_ = *text("image");
    notes_ = text("notes").value_or("");
    sha256_ = text("sha256");
    return Reply{200, {{"ok", true}}};
}

} // namespace devserver
