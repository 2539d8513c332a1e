#include "platform/pulse/PulseAudioInput.h"

#include <pulse/context.h>
#include <pulse/error.h>
#include <pulse/introspect.h>
#include <pulse/mainloop.h>
#include <pulse/stream.h>
#include <pulse/thread-mainloop.h>

#include <QDeadlineTimer>
#include <QLoggingCategory>

#include <atomic>
#include <cstring>
#include <vector>

Q_DECLARE_LOGGING_CATEGORY(lcPlatform)

namespace tk::platform {
namespace {

constexpr pa_sample_spec kSpec{PA_SAMPLE_S16LE, uint32_t(AudioInput::kRate), 1};
// Small fragments: the last words before the key goes up must not sit in a
// server-side buffer when the stream is closed.
constexpr uint32_t kFragmentBytes = AudioInput::kRate / 50 * sizeof(int16_t); // 20 ms

// All of the capture's PulseAudio work happens on the threaded main loop's own
// thread, connecting included: neither a slow server nor a source that stops
// delivering can hold up the gesture or the key release.
class PulseCapture final : public AudioCapture {
public:
    explicit PulseCapture(AudioInput::Sink sink) : m_sink(std::move(sink)) {}
    ~PulseCapture() override { stop(); }

    bool launch() {
        m_loop = pa_threaded_mainloop_new();
        if (!m_loop)
            return false;
        pa_threaded_mainloop_set_name(m_loop, "tk-microphone");
        if (pa_threaded_mainloop_start(m_loop) < 0) {
            pa_threaded_mainloop_free(m_loop);
            m_loop = nullptr;
            return false;
        }
        pa_threaded_mainloop_lock(m_loop);
        pa_mainloop_api_once(pa_threaded_mainloop_get_api(m_loop), &PulseCapture::connect, this);
        pa_threaded_mainloop_unlock(m_loop);
        return true;
    }

    bool open() const override { return m_open.load(); }

    void stop() override {
        if (!m_loop)
            return;
        pa_threaded_mainloop_lock(m_loop);
        m_stopping = true;
        if (m_stream) {
            readAll(m_stream); // what the server already handed over is kept
            pa_stream_set_read_callback(m_stream, nullptr, nullptr);
            pa_stream_set_state_callback(m_stream, nullptr, nullptr);
            pa_stream_disconnect(m_stream);
            pa_stream_unref(m_stream);
            m_stream = nullptr;
        }
        if (m_context) {
            pa_context_set_state_callback(m_context, nullptr, nullptr);
            pa_context_disconnect(m_context);
            pa_context_unref(m_context);
            m_context = nullptr;
        }
        m_open = false;
        pa_threaded_mainloop_unlock(m_loop);
        pa_threaded_mainloop_stop(m_loop);
        pa_threaded_mainloop_free(m_loop);
        m_loop = nullptr;
    }

private:
    static void connect(pa_mainloop_api* api, void* self) {
        auto* c = static_cast<PulseCapture*>(self);
        if (c->m_stopping)
            return;
        c->m_context = pa_context_new(api, "Tolmesk");
        if (!c->m_context)
            return;
        pa_context_set_state_callback(c->m_context, &PulseCapture::contextState, c);
        if (pa_context_connect(c->m_context, nullptr, PA_CONTEXT_NOFLAGS, nullptr) < 0)
            qCDebug(lcPlatform) << "no microphone:" << pa_strerror(pa_context_errno(c->m_context));
    }

    static void contextState(pa_context* ctx, void* self) {
        auto* c = static_cast<PulseCapture*>(self);
        const pa_context_state_t state = pa_context_get_state(ctx);
        if (state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED) {
            qCDebug(lcPlatform) << "no microphone:" << pa_strerror(pa_context_errno(ctx));
            c->m_open = false;
            return;
        }
        if (state != PA_CONTEXT_READY || c->m_stream || c->m_stopping)
            return;
        c->m_stream = pa_stream_new(ctx, "capture voice", &kSpec, nullptr);
        if (!c->m_stream)
            return;
        pa_stream_set_state_callback(c->m_stream, &PulseCapture::streamState, c);
        pa_stream_set_read_callback(c->m_stream, &PulseCapture::readable, c);
        pa_buffer_attr attr{};
        attr.maxlength = uint32_t(-1);
        attr.fragsize = kFragmentBytes;
        if (pa_stream_connect_record(c->m_stream, nullptr, &attr, PA_STREAM_ADJUST_LATENCY) < 0)
            qCDebug(lcPlatform) << "microphone cannot be opened:"
                                << pa_strerror(pa_context_errno(ctx));
    }

    static void streamState(pa_stream* s, void* self) {
        auto* c = static_cast<PulseCapture*>(self);
        const pa_stream_state_t state = pa_stream_get_state(s);
        c->m_open = state == PA_STREAM_READY;
        if (state == PA_STREAM_FAILED)
            qCDebug(lcPlatform) << "microphone failed:"
                                << pa_strerror(pa_context_errno(pa_stream_get_context(s)));
    }

    static void readable(pa_stream* s, size_t, void* self) {
        static_cast<PulseCapture*>(self)->readAll(s);
    }

    void readAll(pa_stream* s) {
        while (pa_stream_readable_size(s) > 0) {
            const void* data = nullptr;
            size_t bytes = 0;
            if (pa_stream_peek(s, &data, &bytes) < 0 || bytes == 0)
                return;
            // A hole (no data, some length) is time the server lost: keep it
            // as silence so the recording's length stays true.
            m_buffer.assign(bytes / sizeof(int16_t), 0);
            if (data)
                std::memcpy(m_buffer.data(), data, m_buffer.size() * sizeof(int16_t));
            pa_stream_drop(s);
            if (!m_buffer.empty())
                m_sink(m_buffer);
        }
    }

    AudioInput::Sink m_sink;
    pa_threaded_mainloop* m_loop = nullptr;
    // Below: touched only with the loop's lock held.
    pa_context* m_context = nullptr;
    pa_stream* m_stream = nullptr;
    bool m_stopping = false;
    std::vector<int16_t> m_buffer;
    std::atomic<bool> m_open{false};
};

// One short blocking exchange with the server, bounded in time.
bool defaultSourceExists(int timeoutMs) {
    pa_mainloop* loop = pa_mainloop_new();
    if (!loop)
        return false;
    pa_context* ctx = pa_context_new(pa_mainloop_get_api(loop), "Tolmesk");
    bool found = false;
    pa_operation* op = nullptr;
    QDeadlineTimer deadline(timeoutMs);
    auto step = [&] {
        const qint64 left = deadline.remainingTime();
        if (left <= 0 || pa_mainloop_prepare(loop, int(std::min<qint64>(left, 50)) * 1000) < 0 ||
            pa_mainloop_poll(loop) < 0 || pa_mainloop_dispatch(loop) < 0)
            return false;
        return true;
    };
    if (ctx && pa_context_connect(ctx, nullptr, PA_CONTEXT_NOFLAGS, nullptr) >= 0) {
        while (pa_context_get_state(ctx) != PA_CONTEXT_READY &&
               PA_CONTEXT_IS_GOOD(pa_context_get_state(ctx)) && step()) {
        }
        if (pa_context_get_state(ctx) == PA_CONTEXT_READY) {
            op = pa_context_get_source_info_by_name(
                ctx, "@DEFAULT_SOURCE@",
                [](pa_context*, const pa_source_info* info, int eol, void* seen) {
                    if (info && eol == 0)
                        *static_cast<bool*>(seen) = true;
                },
                &found);
            while (op && pa_operation_get_state(op) == PA_OPERATION_RUNNING && step()) {
            }
        }
    }
    if (op) {
        pa_operation_cancel(op);
        pa_operation_unref(op);
    }
    if (ctx) {
        pa_context_disconnect(ctx);
        pa_context_unref(ctx);
    }
    pa_mainloop_free(loop);
    return found;
}

class PulseAudioInput final : public AudioInput {
public:
    bool available() override { return defaultSourceExists(2000); }

    std::unique_ptr<AudioCapture> start(Sink sink) override {
        auto capture = std::make_unique<PulseCapture>(std::move(sink));
        if (!capture->launch())
            return nullptr;
        return capture;
    }
};

} // namespace

std::unique_ptr<AudioInput> makePulseAudioInput() {
    return std::make_unique<PulseAudioInput>();
}

} // namespace tk::platform
