#include "St7789Output.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

// Start-up sequence, sent to both panels row by row; each row's delay is waited once
// for both panels, after the row went to each.
struct InitStep {
  uint8_t command;
  uint8_t paramCount;
  uint8_t param;
  uint16_t delayMs;
};

constexpr InitStep kStartUp[] = {
    // Back to the power-on defaults whatever an earlier run left; the controller needs
    // 5 ms before the next command and 120 ms before it may leave sleep.
    {ST7789_SWRESET, 0, 0, 150},
    // Leave sleep mode: booster and oscillator settle within 120 ms.
    {ST7789_SLPOUT, 0, 0, 120},
    // 12 bits per pixel. Only the low three bits (011) apply to the SPI interface; the
    // high ones (101) configure the unused parallel RGB interface and are kept at a
    // defined value rather than the reserved 000.
    {ST7789_COLMOD, 1, ST7789_COLMOD_12BIT, 10},
    // Top-left origin, row-major scan: the order of our frames. Our pixels arrive as
    // blue, green, red nibbles while the controller assumes red first, so the BGR bit
    // routes the first nibble of each pixel to the blue sub-pixel.
    {ST7789_MADCTL, 1, ST7789_MADCTL_BGR, 0},
    // The IPS glass of these modules shows inverted colours without it.
    {ST7789_INVON, 0, 0, 10},
    // Whole panel, no partial area.
    {ST7789_NORON, 0, 0, 10},
    // Show the panel memory.
    {ST7789_DISPON, 0, 0, 20},
};

// Hardware reset: low for 10 ms (the controller wants at least 10 us), then 120 ms
// before the first command is accepted.
constexpr int kResetLowMs = 10;
constexpr int kResetRecoverMs = 120;

int failure(int status) {
  return status < 0 ? status : -1;
}

}  // namespace

St7789Output::St7789Output(std::unique_ptr<PanelTransport> transport)
    : transport_(std::move(transport)) {}

std::string St7789Output::describe() const {
  return "st7789:" + transport_->describe();
}

void St7789Output::requestFullFrames() {
  for (auto& requested : fullRequested_) requested = true;
}

int St7789Output::stream(uint8_t panel, const uint8_t* first, size_t rows, size_t stride,
                         size_t width) {
  // Messages of whole pixel pairs (3 bytes) where the limit allows, so that no
  // chip-select pulse between two messages splits a pixel.
  size_t chunk = transport_->maxTransfer();
  if (chunk >= 3) chunk -= chunk % 3;
  if (chunk == 0) chunk = 1;
  if (stride == width) width *= rows, rows = 1;  // whole rows are one slice
  size_t count = 0, total = 0;
  for (size_t row = 0; row < rows; ++row) {
    const uint8_t* bytes = first + row * stride;
    for (size_t left = width; left > 0;) {
      const size_t n = std::min(left, chunk - total);
      pieces_[count++] = {bytes, n};
      total += n;
      bytes += n;
      left -= n;
      const bool last = row + 1 == rows && left == 0;
      if (total == chunk || count == pieces_.size() || last) {
        const int status = transport_->spiWrite(panel, pieces_.data(), count);
        if (status != 0) return failure(status);
        count = total = 0;
      }
    }
  }
  return 0;
}

int St7789Output::send(uint8_t panel, bool data, const uint8_t* bytes, size_t size) {
  const int status = transport_->setDataCommand(panel, data);
  if (status != 0) return failure(status);
  return stream(panel, bytes, 1, size, size);
}

int St7789Output::command(uint8_t panel, uint8_t code, const uint8_t* params, size_t count) {
  const int status = send(panel, false, &code, 1);
  if (status != 0 || count == 0) return status;
  return send(panel, true, params, count);
}

int St7789Output::open_() {
  opened_ = false;
  failing_.fill(false);
  known_.fill(false);
  int status = transport_->open();
  if (status != 0) return failure(status);

  auto resetAll = [&](bool level) {
    for (uint8_t p = 0; p < LcdControl::kPanels && status == 0; ++p)
      status = transport_->reset(p, level);
  };
  resetAll(true);
  if (status == 0) resetAll(false);
  if (status == 0) {
    transport_->delayMs(kResetLowMs);
    resetAll(true);
  }
  if (status == 0) transport_->delayMs(kResetRecoverMs);

  for (const InitStep& step : kStartUp) {
    for (uint8_t p = 0; p < LcdControl::kPanels && status == 0; ++p)
      status = command(p, step.command, &step.param, step.paramCount);
    if (status != 0) break;
    if (step.delayMs > 0) transport_->delayMs(step.delayMs);
  }
  if (status != 0) {
    spdlog::error("LCD output st7789: start-up of the panels failed ({})", transport_->describe());
    return failure(status);
  }
  opened_ = true;
  return 0;
}

size_t St7789Output::planWindows(const uint8_t* shown, const uint8_t* frame, Window* out) {
  auto bytes = [](const Window& w) {
    return static_cast<size_t>(w.row1 - w.row0 + 1) * static_cast<size_t>(w.pair1 - w.pair0 + 1) *
           3;
  };
  size_t count = 0;
  bool open = false;
  Window current{};
  for (int row = 0; row < LcdControl::kHeight; ++row) {
    const uint8_t* a = shown + row * kRowBytes;
    const uint8_t* b = frame + row * kRowBytes;
    if (std::memcmp(a, b, kRowBytes) == 0) continue;
    size_t first = 0, last = kRowBytes - 1;
    while (a[first] == b[first]) ++first;
    while (a[last] == b[last]) --last;
    const Window line{row, row, static_cast<int>(first / 3), static_cast<int>(last / 3)};
    if (open) {
      // Growing the open window over the gap against a window of its own for this row.
      const Window merged{current.row0, row, std::min(current.pair0, line.pair0),
                          std::max(current.pair1, line.pair1)};
      if (bytes(merged) <= bytes(current) + kWindowCost + bytes(line)) {
        current = merged;
        continue;
      }
      out[count++] = current;
    }
    current = line;
    open = true;
  }
  if (open) out[count++] = current;
  return count;
}

int St7789Output::sendWindow(uint8_t panel, const uint8_t* frame, const Window& w) {
  // Columns and rows are below 256: the high bytes stay 0.
  const uint8_t columns[] = {0, static_cast<uint8_t>(2 * w.pair0), 0,
                             static_cast<uint8_t>(2 * w.pair1 + 1)};
  const uint8_t rows[] = {0, static_cast<uint8_t>(w.row0), 0, static_cast<uint8_t>(w.row1)};
  int status = command(panel, ST7789_CASET, columns, sizeof columns);
  if (status == 0) status = command(panel, ST7789_RASET, rows, sizeof rows);
  if (status == 0) status = command(panel, ST7789_RAMWR, nullptr, 0);
  if (status == 0) status = transport_->setDataCommand(panel, true);
  if (status != 0) return failure(status);
  // Each window row is a slice of the frame; the panel wraps to the window's next row.
  return stream(panel, frame + static_cast<size_t>(w.row0) * kRowBytes + w.pair0 * 3u,
                static_cast<size_t>(w.row1 - w.row0 + 1), kRowBytes,
                static_cast<size_t>(w.pair1 - w.pair0 + 1) * 3);
}

int St7789Output::write_(uint8_t panel, const uint8_t* frame) {
  if (!opened_ || panel >= LcdControl::kPanels || frame == nullptr) return -1;
  size_t count = 1;
  if (!known_[panel] || fullRequested_[panel].exchange(false))
    windows_[0] = {0, LcdControl::kHeight - 1, 0, kPairs - 1};
  else
    count = planWindows(shown_[panel].data(), frame, windows_.data());
  // Unknown until every window is through: a write cut short leaves the panel memory
  // part old, part new, so the next frame goes whole.
  known_[panel] = false;
  int status = 0;
  for (size_t i = 0; i < count && status == 0; ++i) status = sendWindow(panel, frame, windows_[i]);
  if (status != 0) {
    // Logged once until a frame gets through again: frames come 25 times a second.
    if (!failing_[panel])
      spdlog::error("LCD output st7789: writing a frame to panel {} failed ({})", panel,
                    transport_->describe());
    failing_[panel] = true;
    return failure(status);
  }
  failing_[panel] = false;
  // Rows outside the windows, and bytes of their rows outside them, are equal already.
  for (size_t i = 0; i < count; ++i) {
    const size_t first = static_cast<size_t>(windows_[i].row0) * kRowBytes;
    const size_t end = static_cast<size_t>(windows_[i].row1 + 1) * kRowBytes;
    std::memcpy(shown_[panel].data() + first, frame + first, end - first);
  }
  known_[panel] = true;
  return 0;
}
