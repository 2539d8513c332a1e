#pragma once

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

namespace tk::platform {

// One running capture from the default microphone.
class AudioCapture {
public:
    virtual ~AudioCapture() = default;
    // True once the device is open and samples flow.
    virtual bool open() const = 0;
    // Stops; every sample read before this returns has been delivered.
    virtual void stop() = 0;
};

// The default microphone: 16 kHz mono signed 16-bit samples.
class AudioInput {
public:
    using Sink = std::function<void(std::span<const int16_t>)>;
    static constexpr int kRate = 16000;

    virtual ~AudioInput() = default;
    // A default source exists and can be opened.
    virtual bool available() = 0;
    // Returns at once: the device is opened on the capture's own thread, so a
    // gesture never waits for it. `sink` runs on that thread. Nothing when
    // this backend has no microphone at all.
    virtual std::unique_ptr<AudioCapture> start(Sink sink) = 0;
};

} // namespace tk::platform
