#include "RequestLog.h"

#include <stdexcept>

namespace devserver {

RequestLog::RequestLog(const std::filesystem::path& file) : file_(file, std::ios::app) {
    if (!file_) {
        throw std::runtime_error("cannot open the request log " + file.string());
    }
}

double RequestLog::now() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
}

void RequestLog::append(json entry) {
    std::lock_guard lock(mutex_);
    entry["seq"] = ++sequence_;
    if (!entry.contains("t")) {
        entry["t"] = now();
    }
    // Flushed line by line so a test reading the file sees each answer at once.
    file_ << dump(entry) << '\n' << std::flush;
    entries_.push_back(std::move(entry));
}

json RequestLog::entries() const {
    std::lock_guard lock(mutex_);
    return json(entries_);
}

void RequestLog::reset() {
    std::lock_guard lock(mutex_);
    entries_.clear();
}

} // namespace devserver
