// One finished upload unit of one track.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUuid>

#include <array>
#include <optional>

namespace tessel {

enum class AudioChannel { local, remote };

// Every loop over channels takes `local` first.
inline constexpr std::array<AudioChannel, 2> allChannels{AudioChannel::local, AudioChannel::remote};

// The wire form: the value sent to the server for a segment's track.
inline QString wireName(AudioChannel channel) {
    return channel == AudioChannel::local ? QStringLiteral("audio_local")
                                          : QStringLiteral("audio_remote");
}

inline std::optional<AudioChannel> channelFromWire(const QString& text) {
    if (text == QLatin1String("audio_local")) {
        return AudioChannel::local;
    }
    if (text == QLatin1String("audio_remote")) {
        return AudioChannel::remote;
    }
    return std::nullopt;
}

struct AudioSegment {
    AudioChannel channel = AudioChannel::local;
    qint64 sequence = 0; // 0, 1, 2, ... per track with no gaps
    QUuid chunkUUID;     // made when the segment is cut; the same on every retry
    QByteArray bytes;    // whole ADTS frames, at least one

    bool operator==(const AudioSegment&) const = default;

    // The server's text form of the UUID: upper case, no braces.
    QString chunkText() const { return chunkUUID.toString(QUuid::WithoutBraces).toUpper(); }
};

} // namespace tessel
