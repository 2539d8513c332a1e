#pragma once

#include <QString>

#include <optional>
#include <vector>

namespace tk {

// Voice for the gesture. Recording is not built yet; until then every gesture
// takes the no-microphone path: no file, no levels.
class AudioRecorder {
public:
    void begin() { m_levels.clear(); }
    std::optional<QString> finish() { return std::nullopt; }
    const std::vector<float>& levels() const { return m_levels; }

private:
    std::vector<float> m_levels;
};

} // namespace tk
