#include "Downloads.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace devserver {

bool serveDownload(const std::string& dataDir, const httplib::Request& request,
                   httplib::Response& response) {
    if (request.method != "GET") {
        return false;
    }
    const std::string& path = request.path;
    if (path.starts_with("/r/")) {
        response.status = 302;
        response.set_header("Location", path.substr(2));
        return true;
    }
    const std::string marker = "/download/";
    const auto at = path.rfind(marker);
    if (at == std::string::npos) {
        return false;
    }
    const std::string name = path.substr(at + marker.size());
    if (name.empty() || name.find('/') != std::string::npos || name.starts_with(".")) {
        return false;
    }
    std::ifstream file(std::filesystem::path(dataDir) / "downloads" / name, std::ios::binary);
    if (!file) {
        response.status = 404;
        return true;
    }
    std::stringstream bytes;
    bytes << file.rdbuf();
    response.status = 200;
    response.set_content(bytes.str(), "application/zip");
    return true;
}

} // namespace devserver
