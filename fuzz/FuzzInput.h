// What the fuzz targets share: the input as Qt bytes and text, and a check
// whose failure both libFuzzer and the replay report as a crash.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace tessel::fuzz {

inline QByteArray bytes(const std::uint8_t* data, std::size_t size) {
    return QByteArray(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
}

// As a tool's output reaches the program: UTF-8 with bad bytes repaired.
inline QString text(const std::uint8_t* data, std::size_t size) {
    return QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
}

// A promise of the code under test that the input broke: a crash to libFuzzer
// and to the replay alike.
[[noreturn]] inline void broken(const char* promise, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: broken: %s\n", file, line, promise);
    std::abort();
}

} // namespace tessel::fuzz

#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            tessel::fuzz::broken(#condition, __FILE__, __LINE__);                                  \
        }                                                                                          \
    } while (false)
