// LCD driver library: the two 240 x 240 eye panels.
//
// The output is chosen by the environment variable EYE_LCD, read by init():
//   memory      (default) frames are only kept in memory
//   png:DIR     every frame is also written to DIR/lcd<panel>_<counter>.png
//               (counter of 6 digits from 000000, per panel), decoded to 8-bit RGB
//   st7789[:OPTS] two ST7789 panels over spidev and GPIO lines (SpidevTransport.h gives OPTS)
// Whatever the output, lastFrame() and framesWritten() report what was written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "LcdOutput.h"

enum LcdColorDepth : uint8_t {
  LCD_COLOR_DEPTH_18BIT = 1,
  LCD_COLOR_DEPTH_16BIT = 2,
  LCD_COLOR_DEPTH_12BIT = 3,  // 4 bits per channel, two pixels in three bytes
};

// One frame handed to writeLcd. The layout is shared with the panel driver.
struct LcdData {
  uint8_t lcd;         // panel: 0 = left eye, 1 = right eye
  uint8_t padding[7];  // unused
  uint8_t* buffer;     // kFrameBytes bytes, borrowed for the call only
};
static_assert(sizeof(LcdData) == 16, "LcdData is 16 bytes");
static_assert(offsetof(LcdData, buffer) == 8, "LcdData::buffer is at offset 8");

class LcdControl {
 public:
  static constexpr int kWidth = 240;
  static constexpr int kHeight = 240;
  static constexpr size_t kFrameBytes = 86400;  // 240 * 240 pixels * 12 bits / 8
  static constexpr uint8_t kPanels = 2;

  // Opens the output named by EYE_LCD (default "memory"). Only 12-bit depth is
  // supported. Returns 0, or a negative status after logging why (unknown output,
  // unsupported depth, an output that cannot open). Calling it again re-opens the
  // output and keeps the frame counters. It writes no frame.
  static int8_t init(LcdColorDepth depth);
  static int8_t init(int depth) { return init(static_cast<LcdColorDepth>(depth)); }

  // Sends data->buffer (kFrameBytes bytes) to panel data->lcd. Returns 0, or a
  // negative status: -1 not initialised or null data/buffer, -2 panel out of range,
  // -3 the output failed. The frame is recorded for lastFrame() in every case the
  // arguments are valid.
  static int8_t writeLcd(LcdData* data);

  // A copy of the last frame written to `panel` (empty before any).
  static std::vector<uint8_t> lastFrame(uint8_t panel);
  // Number of writeLcd calls for `panel` since start (or resetCounters).
  static uint64_t framesWritten(uint8_t panel);
  // Forgets the frames and counters of both panels (for tests and tools).
  static void resetCounters();

  // Replaces the output (for tools that take frames directly). Opens it; returns
  // its open() status. Frames are still recorded for lastFrame().
  static int8_t setOutput(std::unique_ptr<LcdOutput> output);

  // 86400-byte 12-bit frame -> 240 x 240 x 3 bytes of 8-bit RGB (each nibble * 17).
  static std::vector<uint8_t> unpack12Bit(const uint8_t* frame);
};
