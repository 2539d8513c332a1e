#include "platform/pulse/PulseAudioInput.h"

#include <pulse/error.h>
#include <pulse/simple.h>

#include <QLoggingCategory>

#include <atomic>
#include <thread>
#include <vector>

Q_DECLARE_LOGGING_CATEGORY(lcPlatform)

namespace tk::platform {
namespace {

pa_simple* openDefaultSource() {
    pa_sample_spec spec{};
    spec.format = PA_SAMPLE_S16LE;
    spec.rate = AudioInput::kRate;
    spec.channels = 1;
    // Small fragments: the last words before the key goes up must not be lost
    // in a server-side buffer.
    pa_buffer_attr attr{};
    attr.maxlength = uint32_t(-1);
    attr.fragsize = uint32_t(AudioInput::kRate / 50 * sizeof(int16_t)); // 20 ms
    int error = 0;
    pa_simple* s = pa_simple_new(nullptr, "Tolmesk", PA_STREAM_RECORD, nullptr, "capture voice",
                                 &spec, nullptr, &attr, &error);
    if (!s)
        qCDebug(lcPlatform) << "no microphone:" << pa_strerror(error);
    return s;
}

class PulseCapture final : public AudioCapture {
public:
    explicit PulseCapture(AudioInput::Sink sink) : m_sink(std::move(sink)) {
        m_thread = std::thread([this] { run(); });
    }
    ~PulseCapture() override { stop(); }

    bool open() const override { return m_open.load(); }

    void stop() override {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    void run() {
        pa_simple* s = openDefaultSource();
        if (!s)
            return;
        m_open = true;
        std::vector<int16_t> buf(AudioInput::kRate / 100); // 10 ms reads
        int error = 0;
        while (!m_stop) {
            if (pa_simple_read(s, buf.data(), buf.size() * sizeof(int16_t), &error) < 0)
                break;
            m_sink(buf);
        }
        pa_simple_free(s);
    }

    AudioInput::Sink m_sink;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_open{false};
    std::thread m_thread;
};

class PulseAudioInput final : public AudioInput {
public:
    bool available() override {
        pa_simple* s = openDefaultSource();
        if (!s)
            return false;
        pa_simple_free(s);
        return true;
    }
    std::unique_ptr<AudioCapture> start(Sink sink) override {
        return std::make_unique<PulseCapture>(std::move(sink));
    }
};

} // namespace

std::unique_ptr<AudioInput> makePulseAudioInput() {
    return std::make_unique<PulseAudioInput>();
}

} // namespace tk::platform
