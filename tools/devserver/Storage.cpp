#include "Storage.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <optional>
#include <stdexcept>

namespace devserver {

namespace fs = std::filesystem;

Storage::Storage(fs::path dataDir, double ttlSeconds, bool sync)
    : dataDir_(std::move(dataDir)), ttl_(ttlSeconds), sync_(sync), secret_(randomHex(32)) {}

std::string Storage::sign(const std::string& method, const std::string& path,
                          long long expires) const {
    const std::string message = method + "\n" + path + "\n" + std::to_string(expires);
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), secret_.data(), static_cast<int>(secret_.size()),
         reinterpret_cast<const unsigned char*>(message.data()), message.size(), mac, &length);
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += digits[mac[i] >> 4];
        out += digits[mac[i] & 0xF];
    }
    return out;
}

std::string Storage::presignedURL(const std::string& meeting, const std::string& segment) const {
    const std::string path = "/storage/" + meeting + "/" + segment;
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    const auto expires = static_cast<long long>(std::floor(now + ttl_));
    return origin_ + path + "?expires=" + std::to_string(expires) +
           "&signature=" + sign("PUT", path, expires);
}

Storage::Access Storage::check(const std::string& method, const std::string& path,
                               const std::string& expires, const std::string& signature) const {
    if (expires.empty() || signature.empty()) {
        return Access::unsigned_;
    }
    long long when = 0;
    try {
        std::size_t used = 0;
        when = std::stoll(expires, &used);
        if (used != expires.size()) {
            return Access::badSignature;
        }
    } catch (const std::exception&) {
        return Access::badSignature;
    }
    const std::string expected = sign(method, path, when);
    if (expected.size() != signature.size() ||
        CRYPTO_memcmp(expected.data(), signature.data(), expected.size()) != 0) {
        return Access::badSignature;
    }
    // Expired from the second named on: a TTL of zero gives URLs that never work.
    if (static_cast<long long>(std::time(nullptr)) >= when) {
        return Access::expired;
    }
    return Access::granted;
}

void Storage::write(const fs::path& relative, std::string_view bytes) const {
    const fs::path target = dataDir_ / relative;
    fs::create_directories(target.parent_path());
    // A name of its own per writer: two PUTs of one segment may overlap.
    const fs::path temporary = target.string() + ".tmp-" + randomHex(6);
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw std::runtime_error("cannot create " + temporary.string() + ": " +
                                 std::strerror(errno));
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            const int error = errno;
            ::close(fd);
            fs::remove(temporary);
            throw std::runtime_error("cannot write " + temporary.string() + ": " +
                                     std::strerror(error));
        }
        done += static_cast<std::size_t>(n);
    }
    if (sync_) {
        ::fsync(fd);
    }
    ::close(fd);
    fs::rename(temporary, target);
}

void Storage::writeIndex(const std::string& meeting, const json& index) const {
    write(fs::path(meeting) / "index.json",
          index.dump(2, ' ', false, json::error_handler_t::replace));
}

std::optional<std::string> adtsProblem(std::string_view bytes) {
    if (bytes.empty()) {
        return "The body is empty; expected ADTS frames.";
    }
    std::size_t offset = 0;
    for (int frame = 1; offset < bytes.size(); ++frame) {
        const auto at = [&](std::size_t i) {
            return static_cast<unsigned char>(bytes[offset + i]);
        };
        const std::string where =
            "ADTS frame " + std::to_string(frame) + " at byte " + std::to_string(offset) + ": ";
        if (bytes.size() - offset < 7) {
            return where + "fewer than 7 bytes left for a header.";
        }
        if (at(0) != 0xFF || (at(1) & 0xF0) != 0xF0) {
            return where + "no sync word 0xFFF.";
        }
        if ((at(1) & 0x06) != 0) {
            return where + "layer is not 0.";
        }
        const int profile = at(2) >> 6;
        if (profile != 1) {
            return where + "profile " + std::to_string(profile) + " is not AAC-LC (1).";
        }
        const int samplingIndex = (at(2) >> 2) & 0x0F;
        if (samplingIndex != 8) {
            return where + "sampling index " + std::to_string(samplingIndex) +
                   " is not 8 (16000 Hz).";
        }
        const int channels = ((at(2) & 0x01) << 2) | (at(3) >> 6);
        if (channels != 1) {
            return where + "channel configuration " + std::to_string(channels) +
                   " is not 1 (mono).";
        }
        const bool crc = (at(1) & 0x01) == 0;
        const std::size_t header = crc ? 9 : 7;
        const std::size_t length = (static_cast<std::size_t>(at(3) & 0x03) << 11) |
                                   (static_cast<std::size_t>(at(4)) << 3) | (at(5) >> 5);
        if (length < header) {
            return where + "frame length " + std::to_string(length) +
                   " is shorter than its header.";
        }
        if (length > bytes.size() - offset) {
            return where + "frame length " + std::to_string(length) + " runs past the end of the " +
                   std::to_string(bytes.size()) + "-byte body.";
        }
        offset += length;
    }
    return std::nullopt;
}

} // namespace devserver
