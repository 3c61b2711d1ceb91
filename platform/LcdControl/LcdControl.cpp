#include "LcdControl.h"

#include <spdlog/spdlog.h>

#include <array>
#include <mutex>
#include <utility>

#include "OutputFromEnv.h"

namespace {

struct LcdState {
  std::mutex mutex;
  // Shared so that a write in progress keeps its output alive across setOutput / init.
  std::shared_ptr<LcdOutput> output;
  std::array<std::vector<uint8_t>, LcdControl::kPanels> frames;
  std::array<uint64_t, LcdControl::kPanels> written{};
};

LcdState& state() {
  // Never destroyed: detached eye workers may still write frames while the process exits.
  static LcdState* const s = new LcdState();
  return *s;
}

}  // namespace

int8_t LcdControl::init(LcdColorDepth depth) {
  if (depth != LCD_COLOR_DEPTH_12BIT) {
    spdlog::error("LCD colour depth {} not supported, only 12-bit ({})", static_cast<int>(depth),
                  static_cast<int>(LCD_COLOR_DEPTH_12BIT));
    return -1;
  }
  std::unique_ptr<LcdOutput> output = outputFromEnv();
  if (!output) return -2;  // logged
  // The output reports why it cannot open. A failed init leaves the previous output.
  if (output->open() != 0) return -3;
  std::lock_guard<std::mutex> lock(state().mutex);
  state().output = std::move(output);
  return 0;
}

int8_t LcdControl::writeLcd(LcdData* data) {
  if (data == nullptr || data->buffer == nullptr) return -1;
  if (data->lcd >= kPanels) return -2;
  std::shared_ptr<LcdOutput> output;
  {
    LcdState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.output) return -1;
    s.frames[data->lcd].assign(data->buffer, data->buffer + kFrameBytes);
    ++s.written[data->lcd];
    output = s.output;
  }
  return output->write(data->lcd, data->buffer) == 0 ? 0 : -3;
}

std::vector<uint8_t> LcdControl::lastFrame(uint8_t panel) {
  if (panel >= kPanels) return {};
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().frames[panel];
}

uint64_t LcdControl::framesWritten(uint8_t panel) {
  if (panel >= kPanels) return 0;
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().written[panel];
}

void LcdControl::resetCounters() {
  LcdState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  for (auto& frame : s.frames) std::vector<uint8_t>().swap(frame);
  s.written.fill(0);
}

int8_t LcdControl::setOutput(std::unique_ptr<LcdOutput> output) {
  if (!output) return -1;
  const int status = output->open();
  if (status != 0) return static_cast<int8_t>(status < 0 ? status : -1);
  std::lock_guard<std::mutex> lock(state().mutex);
  state().output = std::move(output);
  return 0;
}

std::vector<uint8_t> LcdControl::unpack12Bit(const uint8_t* frame) {
  if (frame == nullptr) return {};
  std::vector<uint8_t> rgb(static_cast<size_t>(kWidth) * kHeight * 3);
  uint8_t* out = rgb.data();
  // Each pair of pixels P, Q fills three bytes, nibbles in the panel's blue-green-red
  // order: [P.b P.g] [P.r Q.b] [Q.g Q.r].
  for (size_t i = 0; i < kFrameBytes; i += 3) {
    const uint8_t b0 = frame[i], b1 = frame[i + 1], b2 = frame[i + 2];
    const uint8_t nibbles[6] = {
        static_cast<uint8_t>(b1 >> 4), static_cast<uint8_t>(b0 & 15), static_cast<uint8_t>(b0 >> 4),
        static_cast<uint8_t>(b2 & 15), static_cast<uint8_t>(b2 >> 4), static_cast<uint8_t>(b1 & 15),
    };
    for (uint8_t n : nibbles) *out++ = static_cast<uint8_t>(n * 17);
  }
  return rgb;
}
