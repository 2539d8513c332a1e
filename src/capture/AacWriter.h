#pragma once

#include <QString>

#include <cstdint>
#include <memory>
#include <span>

struct AVFormatContext;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace tk {

// 16 kHz mono samples in, AAC-LC in an MP4 (.m4a) file out.
class AacWriter {
public:
    static std::unique_ptr<AacWriter> create(const QString& path, int rate);
    ~AacWriter();
    AacWriter(const AacWriter&) = delete;
    AacWriter& operator=(const AacWriter&) = delete;

    bool write(std::span<const int16_t> samples);
    // Drains the encoder and writes the index (moov): the file is complete after this.
    bool finish();

private:
    AacWriter() = default;
    bool encode(AVFrame* frame);
    bool sendPending(bool all);

    AVFormatContext* m_fmt = nullptr;
    AVCodecContext* m_codec = nullptr;
    AVFrame* m_frame = nullptr;
    AVPacket* m_packet = nullptr;
    int m_streamIndex = 0;
    int64_t m_pts = 0;
    std::unique_ptr<float[]> m_pending;
    int m_pendingCount = 0;
    bool m_finished = false;
    bool m_failed = false;
};

} // namespace tk
