// Files offered for download, as an organisation's site offers its sibling
// applications:
//   GET .../download/<name>  the file <data-dir>/downloads/<name>; 404 with an
//                            empty body when there is none
//   GET /r/<path>            302 to /<path>, for clients that must follow
#pragma once

#include <httplib.h>

#include <string>

namespace devserver {

// True when the request was one of these and has been answered.
bool serveDownload(const std::string& dataDir, const httplib::Request& request,
                   httplib::Response& response);

} // namespace devserver
