// velmora-devserver: the organisation's side of a call on loopback, for tests
// and the demo. Prints one ready line on stdout once it accepts connections.
#include "Server.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>

namespace {

const char* const usage =
    "usage: velmora-devserver [--host 127.0.0.1] [--port 0] [--https] [--data-dir DIR]\n"
    "                         [--log FILE] [--presign-ttl SECONDS] [--base-path /meet]\n"
    "                         [--no-fsync]   (benchmarks only: stored files are not synced)\n";

// Reads "--name value" and "--name=value"; false when argv[i] isn't `name`.
bool option(int argc, char** argv, int& i, const char* name, std::string& value) {
    const std::string arg = argv[i];
    const std::string prefix = std::string(name) + "=";
    if (arg.starts_with(prefix)) {
        value = arg.substr(prefix.size());
        return true;
    }
    if (arg != name) {
        return false;
    }
    if (i + 1 >= argc) {
        throw std::invalid_argument(std::string(name) + " needs a value");
    }
    value = argv[++i];
    return true;
}

int number(const std::string& text, const char* name) {
    std::size_t used = 0;
    const int n = std::stoi(text, &used);
    if (used != text.size() || n < 0) {
        throw std::invalid_argument(std::string(name) + " must be a number of zero or more");
    }
    return n;
}

devserver::Options parse(int argc, char** argv) {
    devserver::Options options;
    for (int i = 1; i < argc; ++i) {
        std::string value;
        if (std::strcmp(argv[i], "--https") == 0) {
            options.https = true;
        } else if (std::strcmp(argv[i], "--no-fsync") == 0) {
            options.fsync = false;
        } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::cout << usage;
            std::exit(0);
        } else if (option(argc, argv, i, "--host", value)) {
            options.host = value;
        } else if (option(argc, argv, i, "--port", value)) {
            options.port = number(value, "--port");
        } else if (option(argc, argv, i, "--data-dir", value)) {
            options.dataDir = value;
        } else if (option(argc, argv, i, "--log", value)) {
            options.logPath = value;
        } else if (option(argc, argv, i, "--presign-ttl", value)) {
            std::size_t used = 0;
            options.presignTTL = std::stod(value, &used);
            if (used != value.size()) {
                throw std::invalid_argument("--presign-ttl must be a number of seconds");
            }
        } else if (option(argc, argv, i, "--base-path", value)) {
            options.basePath = value;
        } else {
            throw std::invalid_argument(std::string("unknown argument ") + argv[i]);
        }
    }
    namespace fs = std::filesystem;
    if (options.dataDir.empty()) {
        const fs::path base = fs::temp_directory_path() / "velmora-devserver-XXXXXX";
        std::string name = base.string();
        if (!mkdtemp(name.data())) {
            throw std::runtime_error("cannot create a data directory under " +
                                     fs::temp_directory_path().string());
        }
        options.dataDir = name;
    }
    fs::create_directories(options.dataDir);
    options.dataDir = fs::canonical(options.dataDir).string();
    if (options.logPath.empty()) {
        options.logPath = (fs::path(options.dataDir) / "requests.jsonl").string();
    }
    options.logPath = fs::absolute(options.logPath).string();
    return options;
}

} // namespace

int main(int argc, char** argv) {
    devserver::Options options;
    try {
        options = parse(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "velmora-devserver: " << error.what() << "\n" << usage;
        return 2;
    }

    // Signals are taken by one thread with sigwait, so they are blocked before
    // any other thread exists; a peer that hangs up must not kill the server.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    try {
        devserver::Server server(options);
        const std::string origin = server.bind();
        std::string ready = "velmora-devserver ready " + origin + " data=" + options.dataDir +
                            " log=" + options.logPath;
        if (options.https) {
            ready += " cert=" + server.certificatePath();
        }
        std::printf("%s\n", ready.c_str());
        std::fflush(stdout);

        std::thread watcher([&] {
            int signal = 0;
            sigwait(&stopSignals, &signal);
            server.stop();
        });
        const bool served = server.run();
        // Wakes the watcher when serving ended on its own.
        pthread_kill(watcher.native_handle(), SIGTERM);
        watcher.join();
        return served ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "velmora-devserver: " << error.what() << "\n";
        return 1;
    }
}
