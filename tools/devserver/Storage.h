// The storage service behind presigned URLs: signs and checks upload URLs, and
// keeps segment bytes and each call's index on disk.
#pragma once

#include "Support.h"

#include <filesystem>
#include <string>
#include <string_view>

namespace devserver {

class Storage {
public:
    // Without `sync`, written files are not flushed to the disk (benchmarks only).
    Storage(std::filesystem::path dataDir, double ttlSeconds, bool sync = true);

    // Set once the port is known, before the first request.
    void setOrigin(std::string origin) { origin_ = std::move(origin); }

    // "<origin>/storage/<meeting>/<segment>?expires=..&signature=.." for a PUT.
    std::string presignedURL(const std::string& meeting, const std::string& segment) const;

    enum class Access { granted, unsigned_, badSignature, expired };
    Access check(const std::string& method, const std::string& path, const std::string& expires,
                 const std::string& signature) const;

    // Writes `bytes` to `relative` under the data dir so that a reader sees the
    // old file or the whole new one, never a part.
    void write(const std::filesystem::path& relative, std::string_view bytes) const;
    void writeIndex(const std::string& meeting, const json& index) const;

    const std::filesystem::path& dataDir() const { return dataDir_; }

private:
    std::string sign(const std::string& method, const std::string& path, long long expires) const;

    std::filesystem::path dataDir_;
    double ttl_;
    bool sync_;
    std::string origin_;
    std::string secret_; // per process: URLs of an earlier run don't verify
};

// What is wrong with a body that should be whole ADTS frames of AAC-LC, 16 kHz,
// mono, or nothing when it is right.
std::optional<std::string> adtsProblem(std::string_view bytes);

} // namespace devserver
