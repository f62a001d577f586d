// velmora-devserver: the organisation's meet and storage servers on loopback,
// for the tests and the demo.
#include "MeetServer.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <thread>

namespace {

devserver::MeetServer* running = nullptr;

void usage() {
    std::fprintf(stderr, "usage: velmora-devserver [--host 127.0.0.1] [--port 0] [--https] "
                         "[--data-dir DIR] [--log FILE] [--presign-ttl SECONDS] "
                         "[--base-path /meet]\n");
}

} // namespace

int main(int argc, char** argv) {
    devserver::Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                usage();
                std::exit(2);
            }
            return argv[++i];
        };
        if (word == "--host") {
            options.host = value();
        } else if (word == "--port") {
            options.port = std::stoi(value());
        } else if (word == "--https") {
            options.https = true;
        } else if (word == "--data-dir") {
            options.dataDir = value();
        } else if (word == "--log") {
            options.logPath = value();
        } else if (word == "--presign-ttl") {
            options.presignTTL = std::stod(value());
        } else if (word == "--base-path") {
            options.basePath = value();
        } else {
            usage();
            return 2;
        }
    }
    try {
        devserver::MeetServer server(options);
        const std::string origin = server.bind();
        running = &server;
        std::signal(SIGTERM, [](int) { running->stop(); });
        std::signal(SIGINT, [](int) { running->stop(); });
        std::signal(SIGPIPE, SIG_IGN);
        std::thread listener([&] { server.run(); });
        while (!server.isRunning()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::string line = "velmora-devserver ready " + origin + " data=" + server.dataDir() +
                           " log=" + server.logPath();
        if (!server.certificatePath().empty()) {
            line += " cert=" + server.certificatePath();
        }
        std::cout << line << std::endl;
        listener.join();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "velmora-devserver: %s\n", error.what());
        return 1;
    }
    return 0;
}
