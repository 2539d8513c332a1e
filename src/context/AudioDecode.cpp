#include "context/AudioDecode.h"

#include <QFile>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include <memory>

namespace tk {

namespace {

struct Decoder {
    AVFormatContext* fmt = nullptr;
    AVCodecContext* codec = nullptr;
    SwrContext* swr = nullptr;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    ~Decoder() {
        av_frame_free(&frame);
        av_packet_free(&packet);
        swr_free(&swr);
        avcodec_free_context(&codec);
        avformat_close_input(&fmt);
    }
};

bool convert(Decoder& d, AVFrame* frame, std::vector<int16_t>& out) {
    const int room = swr_get_out_samples(d.swr, frame ? frame->nb_samples : 0);
    if (room <= 0)
        return true;
    const size_t at = out.size();
    out.resize(at + size_t(room));
    uint8_t* dst = reinterpret_cast<uint8_t*>(out.data() + at);
    const int got = swr_convert(d.swr, &dst, room,
                                frame ? const_cast<const uint8_t**>(frame->extended_data) : nullptr,
                                frame ? frame->nb_samples : 0);
    if (got < 0)
        return false;
    out.resize(at + size_t(got));
    return true;
}

} // namespace

std::optional<std::vector<int16_t>> decodeToPcm16k(const QString& path) {
    // Failures are handled here; the library's own chatter is not for the user.
    av_log_set_level(AV_LOG_FATAL);
    Decoder d;
    const QByteArray file = path.toLocal8Bit();
    if (!d.packet || !d.frame ||
        avformat_open_input(&d.fmt, file.constData(), nullptr, nullptr) < 0)
        return std::nullopt;
    if (avformat_find_stream_info(d.fmt, nullptr) < 0)
        return std::nullopt;
    const AVCodec* codec = nullptr;
    const int stream = av_find_best_stream(d.fmt, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (stream < 0 || !codec)
        return std::nullopt;
    d.codec = avcodec_alloc_context3(codec);
    if (!d.codec || avcodec_parameters_to_context(d.codec, d.fmt->streams[stream]->codecpar) < 0 ||
        avcodec_open2(d.codec, codec, nullptr) < 0)
        return std::nullopt;
    AVChannelLayout mono;
    av_channel_layout_default(&mono, 1);
    if (swr_alloc_set_opts2(&d.swr, &mono, AV_SAMPLE_FMT_S16, 16000, &d.codec->ch_layout,
                            d.codec->sample_fmt, d.codec->sample_rate, 0, nullptr) < 0 ||
        swr_init(d.swr) < 0)
        return std::nullopt;

    std::vector<int16_t> out;
    auto drain = [&]() -> bool {
        for (;;) {
            const int rc = avcodec_receive_frame(d.codec, d.frame);
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
                return true;
            if (rc < 0 || !convert(d, d.frame, out))
                return false;
        }
    };
    while (av_read_frame(d.fmt, d.packet) >= 0) {
        const bool ours = d.packet->stream_index == stream;
        const bool ok = !ours || avcodec_send_packet(d.codec, d.packet) >= 0;
        av_packet_unref(d.packet);
        if (!ok || !drain())
            return std::nullopt;
    }
    avcodec_send_packet(d.codec, nullptr);
    if (!drain() || !convert(d, nullptr, out))
        return std::nullopt;
    return out;
}

bool writeWav(const QString& path, const std::vector<int16_t>& samples, int rate) {
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    auto u32 = [&](quint32 v) { f.write(reinterpret_cast<const char*>(&v), 4); };
    auto u16 = [&](quint16 v) { f.write(reinterpret_cast<const char*>(&v), 2); };
    const quint32 bytes = quint32(samples.size() * 2);
    f.write("RIFF");
    u32(36 + bytes);
    f.write("WAVEfmt ");
    u32(16);
    u16(1); // PCM
    u16(1); // mono
    u32(quint32(rate));
    u32(quint32(rate) * 2);
    u16(2);
    u16(16);
    f.write("data");
    u32(bytes);
    return f.write(reinterpret_cast<const char*>(samples.data()), bytes) == qint64(bytes);
}

} // namespace tk
