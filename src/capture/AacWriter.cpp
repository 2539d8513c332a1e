#include "capture/AacWriter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

namespace tk {

std::unique_ptr<AacWriter> AacWriter::create(const QString& path, int rate) {
    // Failures are handled here; the library's own chatter is not for the user.
    av_log_set_level(AV_LOG_FATAL);
    std::unique_ptr<AacWriter> w(new AacWriter);
    const QByteArray file = path.toLocal8Bit();
    if (avformat_alloc_output_context2(&w->m_fmt, nullptr, "ipod", file.constData()) < 0)
        return nullptr;
    const AVCodec* aac = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!aac)
        return nullptr;
    AVStream* stream = avformat_new_stream(w->m_fmt, nullptr);
    w->m_codec = avcodec_alloc_context3(aac);
    if (!stream || !w->m_codec)
        return nullptr;
    w->m_codec->sample_fmt = AV_SAMPLE_FMT_FLTP;
    w->m_codec->sample_rate = rate;
    av_channel_layout_default(&w->m_codec->ch_layout, 1);
    w->m_codec->bit_rate = 32000;
    w->m_codec->profile = FF_PROFILE_AAC_LOW;
    w->m_codec->time_base = AVRational{1, rate};
    if (w->m_fmt->oformat->flags & AVFMT_GLOBALHEADER)
        w->m_codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (avcodec_open2(w->m_codec, aac, nullptr) < 0)
        return nullptr;
    if (avcodec_parameters_from_context(stream->codecpar, w->m_codec) < 0)
        return nullptr;
    stream->time_base = w->m_codec->time_base;
    w->m_streamIndex = stream->index;
    if (avio_open(&w->m_fmt->pb, file.constData(), AVIO_FLAG_WRITE) < 0)
        return nullptr;
    if (avformat_write_header(w->m_fmt, nullptr) < 0)
        return nullptr;
    w->m_frame = av_frame_alloc();
    w->m_packet = av_packet_alloc();
    if (!w->m_frame || !w->m_packet)
        return nullptr;
    w->m_frame->nb_samples = w->m_codec->frame_size;
    w->m_frame->format = w->m_codec->sample_fmt;
    w->m_frame->sample_rate = rate;
    av_channel_layout_copy(&w->m_frame->ch_layout, &w->m_codec->ch_layout);
    if (av_frame_get_buffer(w->m_frame, 0) < 0)
        return nullptr;
    w->m_pending = std::make_unique<float[]>(size_t(w->m_codec->frame_size));
    return w;
}

AacWriter::~AacWriter() {
    if (!m_finished && m_fmt && m_fmt->pb)
        finish();
    av_packet_free(&m_packet);
    av_frame_free(&m_frame);
    avcodec_free_context(&m_codec);
    if (m_fmt) {
        if (m_fmt->pb)
            avio_closep(&m_fmt->pb);
        avformat_free_context(m_fmt);
    }
}

bool AacWriter::encode(AVFrame* frame) {
    if (avcodec_send_frame(m_codec, frame) < 0)
        return false;
    for (;;) {
        const int rc = avcodec_receive_packet(m_codec, m_packet);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
            return true;
        if (rc < 0)
            return false;
        av_packet_rescale_ts(m_packet, m_codec->time_base,
                             m_fmt->streams[m_streamIndex]->time_base);
        m_packet->stream_index = m_streamIndex;
        if (av_interleaved_write_frame(m_fmt, m_packet) < 0)
            return false;
    }
}

bool AacWriter::sendPending(bool all) {
    const int size = m_codec->frame_size;
    if (m_pendingCount == 0 || (!all && m_pendingCount < size))
        return true;
    if (av_frame_make_writable(m_frame) < 0)
        return false;
    // The encoder takes a short last frame.
    m_frame->nb_samples = m_pendingCount;
    std::copy_n(m_pending.get(), m_pendingCount, reinterpret_cast<float*>(m_frame->data[0]));
    m_frame->pts = m_pts;
    m_pts += m_pendingCount;
    m_pendingCount = 0;
    return encode(m_frame);
}

bool AacWriter::write(std::span<const int16_t> samples) {
    if (m_failed || m_finished)
        return false;
    const int size = m_codec->frame_size;
    for (int16_t s : samples) {
        m_pending[size_t(m_pendingCount++)] = float(s) / 32768.0f;
        if (m_pendingCount == size && !sendPending(false)) {
            m_failed = true;
            return false;
        }
    }
    return true;
}

bool AacWriter::finish() {
    if (m_finished)
        return !m_failed;
    m_finished = true;
    bool ok = !m_failed && sendPending(true) && encode(nullptr);
    ok = av_write_trailer(m_fmt) == 0 && ok;
    avio_closep(&m_fmt->pb);
    return ok;
}

} // namespace tk
