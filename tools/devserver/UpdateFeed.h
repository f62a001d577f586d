// The program's update feed on the local server: GET /update/feed.json gives
// {"version", "url", "sha256", "notes"} for an image at /update/image, and
// POST /_control/update sets what they offer:
//   {"version", "image" (the image's bytes as text), "notes",
//    "sha256" (optional: a wrong checksum, to try a damaged download)}.
// Until then the feed offers version 0.0.0, older than any build.
#pragma once

#include "Support.h"

#include <httplib.h>

#include <mutex>
#include <optional>
#include <string>

namespace devserver {

class UpdateFeed {
public:
    void setOrigin(const std::string& origin);

    // "update_feed" or "update_image" for a path of the feed; none otherwise.
    static std::optional<std::string> route(const std::string& path);
    void serve(const std::string& route, httplib::Response& response);
    Reply control(const json& body);

private:
    std::mutex mutex_;
    std::string origin_;
    std::string version_ = "0.0.0";
    std::string image_;
    std::string notes_;
    std::optional<std::string> sha256_;
};

} // namespace devserver
