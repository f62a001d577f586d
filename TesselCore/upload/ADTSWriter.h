// The 7-byte ADTS header that makes each AAC packet a self-standing frame, so a
// segment decodes alone and the server can join a track's segments in order.
// Fixed to the one stream this system writes: AAC-LC, 16000 Hz, mono, no CRC.
#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <array>
#include <cstdint>

namespace tessel::ADTSWriter {

// 8184 + 7 = 8191, the largest 13-bit frame length.
inline constexpr qsizetype maxPayloadSize = 8184;
inline constexpr qsizetype headerSize = 7;

// Throws TesselError for a payload of 0 or more than `maxPayloadSize` bytes.
std::array<std::uint8_t, 7> header(qsizetype payloadSize);

// The header for `packet`'s size followed by `packet`; fails like `header`.
QByteArray wrap(QByteArrayView packet);

} // namespace tessel::ADTSWriter
