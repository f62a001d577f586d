#include "support/DevServer.h"
#include "support/Processes.h"

#include <QDeadlineTimer>

#include <gtest/gtest.h>
#include <httplib.h>

#include <signal.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace tessel::test {

using nlohmann::json;

namespace {

// The value of " key=" in the ready line, up to the next field; the data
// directory comes first, so a path with blanks in it still reads whole.
std::string field(const std::string& line, const std::string& key) {
    const auto start = line.find(" " + key + "=");
    if (start == std::string::npos) {
        return {};
    }
    const auto from = start + key.size() + 2;
    const auto end = std::min(line.find(" log=", from), line.find(" cert=", from));
    return line.substr(from, end == std::string::npos ? std::string::npos : end - from);
}

} // namespace

DevServer::DevServer() : DevServer(Options{}) {}

DevServer::DevServer(Options options) {
    std::string dir = (std::filesystem::temp_directory_path() / "tessel-devserver-XXXXXX").string();
    if (!mkdtemp(dir.data())) {
        throw std::runtime_error("DevServer: cannot create a data directory");
    }
    dataDir_ = dir;
    QStringList arguments{"--port", "0", "--data-dir", QString::fromStdString(dataDir_)};
    if (options.https) {
        arguments << "--https";
    }
    // The server goes when the test process dies, even by SIGKILL; its own
    // words go to the test's stderr.
    process_.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGTERM); });
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_.start(TESSEL_DEVSERVER_PATH, arguments);
    const QDeadlineTimer deadline(15000);
    while (!process_.canReadLine() && process_.waitForReadyRead(deadline.remainingTime())) {
    }
    const std::string line = process_.readLine().trimmed().toStdString();
    const std::string prefix = "velmora-devserver ready ";
    if (!line.starts_with(prefix)) {
        stopProcess(process_);
        throw std::runtime_error("DevServer: no ready line from " TESSEL_DEVSERVER_PATH " (got \"" +
                                 line + "\")");
    }
    origin_ = line.substr(prefix.size(), line.find(' ', prefix.size()) - prefix.size());
    certPath_ = field(line, "cert");
}

DevServer::~DevServer() {
    stopProcess(process_);
    if (std::getenv("TESSEL_KEEP_DEVSERVER_DATA") || ::testing::Test::HasFailure()) {
        std::fprintf(stderr, "DevServer: data kept in %s\n", dataDir_.c_str());
        return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(dataDir_, ignored);
}

std::unique_ptr<httplib::Client> DevServer::client() const {
    auto out = std::make_unique<httplib::Client>(origin_);
    if (!certPath_.empty()) {
        out->set_ca_cert_path(certPath_);
        out->enable_server_certificate_verification(true);
    }
    out->set_connection_timeout(5);
    out->set_read_timeout(30);
    return out;
}

json DevServer::control(const std::string& name, const json& body) const {
    const auto c = client();
    const std::string path = "/_control/" + name;
    const auto result =
        body.is_null() ? c->Get(path) : c->Post(path, body.dump(), "application/json");
    if (!result || result->status != 200) {
        throw std::runtime_error("DevServer: " + path + " failed: " +
                                 (result ? std::to_string(result->status) + " " + result->body
                                         : httplib::to_string(result.error())));
    }
    return json::parse(result->body);
}

std::vector<std::string> DevServer::routes() const {
    std::vector<std::string> out;
    for (const json& entry : requestLog()) {
        out.push_back(entry.value("route", ""));
    }
    return out;
}

long DevServer::requests(const std::string& route) const {
    const auto all = routes();
    return std::count(all.begin(), all.end(), route);
}

} // namespace tessel::test
