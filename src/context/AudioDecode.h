#pragma once

#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

namespace tk {

// Any audio file FFmpeg reads, as 16 kHz mono signed 16-bit samples.
std::optional<std::vector<int16_t>> decodeToPcm16k(const QString& path);
// The same samples as a plain WAV file, for tools that want one.
bool writeWav(const QString& path, const std::vector<int16_t>& samples, int rate = 16000);

} // namespace tk
