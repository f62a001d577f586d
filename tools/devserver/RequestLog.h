// Every meet and storage request the server answered, in the order the answers
// went out: appended to a JSON-lines file and kept in memory for the control
// interface.
#pragma once

#include "Support.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <vector>

namespace devserver {

class RequestLog {
public:
    explicit RequestLog(const std::filesystem::path& file);

    // Adds "seq" and "t" (seconds since the server started, monotonic).
    void append(json entry);

    json entries() const;

    // Forgets the entries in memory; the file keeps the whole history.
    void reset();

    // Seconds since the server started, on the log's clock.
    double now() const;

private:
    mutable std::mutex mutex_;
    std::ofstream file_;
    std::vector<json> entries_;
    long long sequence_ = 0;
    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};

} // namespace devserver
