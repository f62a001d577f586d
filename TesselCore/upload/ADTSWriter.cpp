#include "upload/ADTSWriter.h"

#include "errors/Failures.h"

using namespace Qt::StringLiterals;

namespace tessel::ADTSWriter {

std::array<std::uint8_t, 7> header(qsizetype payloadSize) {
    if (payloadSize < 1 || payloadSize > maxPayloadSize) {
        throw TesselError(u"AAC packet length %1 cannot fit ADTS — restart the encoder with AAC-LC "
                          u"packets below 8185 bytes."_s.arg(payloadSize));
    }
    const auto length = static_cast<std::uint32_t>(payloadSize + headerSize);
    return {
        0xFF, // syncword
        0xF1, // syncword; MPEG-4; layer 0; no CRC
        0x60, // AAC LC; 16000 Hz; private 0; channel configuration bit 2
        static_cast<std::uint8_t>(0x40 | (length >> 11)),      // one channel; frame length 12..11
        static_cast<std::uint8_t>((length >> 3) & 0xFF),       // frame length 10..3
        static_cast<std::uint8_t>(((length & 7) << 5) | 0x1F), // frame length 2..0; fullness
        0xFC, // fullness 0x7FF (variable bit rate); one raw data block
    };
}

QByteArray wrap(QByteArrayView packet) {
    const auto head = header(packet.size());
    QByteArray frame;
    frame.reserve(headerSize + packet.size());
    frame.append(reinterpret_cast<const char*>(head.data()), headerSize);
    frame.append(packet);
    return frame;
}

} // namespace tessel::ADTSWriter
