#include "St7789.h"

#include <fcntl.h>
#include <gpiod.h>
#include <linux/spi/spidev.h>
#include <spdlog/spdlog.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace {

// ---------------------------------------------------------------------------------
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

// ---------------------------------------------------------------------------------
// libgpiod lines, shared by path and offset: two panels may share a line, and a new
// output opens while the one it replaces still holds its lines.
struct GpioChip {
  gpiod_chip* chip = nullptr;
  ~GpioChip() {
    if (chip) gpiod_chip_close(chip);
  }
};

struct GpioLine {
  std::shared_ptr<GpioChip> chip;
  gpiod_line* line = nullptr;
  ~GpioLine() {
    if (line) gpiod_line_release(line);
  }
};

std::mutex gpioMutex;
std::map<std::string, std::weak_ptr<GpioChip>> gpioChips;
std::map<std::pair<std::string, int>, std::weak_ptr<GpioLine>> gpioLines;

std::shared_ptr<GpioLine> requestLine(const std::string& chipPath, int offset, int initial) {
  std::lock_guard<std::mutex> lock(gpioMutex);
  if (auto line = gpioLines[{chipPath, offset}].lock()) return line;
  std::shared_ptr<GpioChip> chip = gpioChips[chipPath].lock();
  if (!chip) {
    chip = std::make_shared<GpioChip>();
    chip->chip = gpiod_chip_open(chipPath.c_str());
    if (!chip->chip) {
      spdlog::error("LCD output st7789: cannot open GPIO chip {}: {}", chipPath,
                    std::strerror(errno));
      return nullptr;
    }
    gpioChips[chipPath] = chip;
  }
  auto line = std::make_shared<GpioLine>();
  line->chip = chip;
  gpiod_line* raw = gpiod_chip_get_line(chip->chip, static_cast<unsigned>(offset));
  if (!raw || gpiod_line_request_output(raw, "eye-lcd", initial) != 0) {
    spdlog::error("LCD output st7789: cannot claim GPIO line {} of {} as output: {}", offset,
                  chipPath, std::strerror(errno));
    return nullptr;
  }
  line->line = raw;
  gpioLines[{chipPath, offset}] = line;
  return line;
}

// spidev's largest transfer, a module parameter (4096 unless changed).
size_t spidevBufsiz() {
  std::ifstream in("/sys/module/spidev/parameters/bufsiz");
  size_t size = 0;
  if (in >> size && size > 0) return size;
  return 4096;
}

class SpidevTransport : public PanelTransport {
 public:
  explicit SpidevTransport(St7789Options options) : options_(std::move(options)) {}
  ~SpidevTransport() override { close(); }

  int open() override {
    close();
    for (uint8_t p = 0; p < LcdControl::kPanels; ++p) {
      const std::string& path = options_.spi[p];
      fds_[p] = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
      if (fds_[p] < 0) {
        spdlog::error("LCD output st7789: cannot open SPI device {}: {}", path,
                      std::strerror(errno));
        close();
        return -1;
      }
      uint8_t mode = options_.mode;
      uint8_t bits = 8;
      uint32_t hz = options_.hz;
      if (ioctl(fds_[p], SPI_IOC_WR_MODE, &mode) < 0 ||
          ioctl(fds_[p], SPI_IOC_WR_BITS_PER_WORD, &bits) < 0 ||
          ioctl(fds_[p], SPI_IOC_WR_MAX_SPEED_HZ, &hz) < 0) {
        spdlog::error("LCD output st7789: cannot set up SPI device {} (mode {}, {} Hz): {}", path,
                      mode, hz, std::strerror(errno));
        close();
        return -1;
      }
    }
    for (uint8_t p = 0; p < LcdControl::kPanels; ++p) {
      dc_[p] = requestLine(options_.gpiochip, options_.dc[p], 0);
      if (options_.rst[p] >= 0) rst_[p] = requestLine(options_.gpiochip, options_.rst[p], 1);
      if (!dc_[p] || (options_.rst[p] >= 0 && !rst_[p])) {
        close();
        return -1;
      }
    }
    maxTransfer_ = spidevBufsiz();
    return 0;
  }

  int setDataCommand(uint8_t panel, bool data) override {
    if (panel >= LcdControl::kPanels || !dc_[panel]) return -1;
    return gpiod_line_set_value(dc_[panel]->line, data ? 1 : 0) == 0 ? 0 : -1;
  }

  int reset(uint8_t panel, bool level) override {
    if (panel >= LcdControl::kPanels) return -1;
    if (!rst_[panel]) return 0;  // no reset line: the software reset has to do
    return gpiod_line_set_value(rst_[panel]->line, level ? 1 : 0) == 0 ? 0 : -1;
  }

  int spiWrite(uint8_t panel, const uint8_t* bytes, size_t size) override {
    if (panel >= LcdControl::kPanels || fds_[panel] < 0) return -1;
    while (size > 0) {
      const size_t n = std::min(size, maxTransfer_);
      spi_ioc_transfer transfer{};
      transfer.tx_buf = reinterpret_cast<uintptr_t>(bytes);
      transfer.len = static_cast<uint32_t>(n);
      transfer.speed_hz = options_.hz;
      transfer.bits_per_word = 8;
      if (ioctl(fds_[panel], SPI_IOC_MESSAGE(1), &transfer) < 0) return -1;
      bytes += n;
      size -= n;
    }
    return 0;
  }

  size_t maxTransfer() const override { return maxTransfer_; }
  void delayMs(int ms) override { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
  std::string describe() const override { return options_.describe(); }

 private:
  void close() {
    for (int& fd : fds_) {
      if (fd >= 0) ::close(fd);
      fd = -1;
    }
    for (auto& line : dc_) line.reset();
    for (auto& line : rst_) line.reset();
  }

  St7789Options options_;
  std::array<int, LcdControl::kPanels> fds_{-1, -1};
  std::array<std::shared_ptr<GpioLine>, LcdControl::kPanels> dc_, rst_;
  size_t maxTransfer_ = 4096;
};

bool parseInt(const std::string& text, long long low, long long high, long long& out) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, out);
  return ec == std::errc() && ptr == end && out >= low && out <= high;
}

}  // namespace

// ---------------------------------------------------------------------------------
bool St7789Options::parse(const std::string& text, St7789Options& out, std::string& error) {
  St7789Options result = out;
  size_t start = 0;
  while (start <= text.size() && !text.empty()) {
    size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    const std::string item = text.substr(start, end - start);
    const size_t eq = item.find('=');
    if (eq == std::string::npos || eq == 0) {
      error = "expected KEY=VALUE, got \"" + item + "\"";
      return false;
    }
    const std::string key = item.substr(0, eq);
    const std::string value = item.substr(eq + 1);
    long long number = 0;
    bool ok = true;
    if (key == "spi0" || key == "spi1") {
      ok = !value.empty();
      result.spi[key[3] - '0'] = value;
    } else if (key == "gpiochip") {
      ok = !value.empty();
      result.gpiochip = value;
    } else if (key == "dc0" || key == "dc1") {
      ok = parseInt(value, 0, 65535, number);
      result.dc[key[2] - '0'] = static_cast<int>(number);
    } else if (key == "rst0" || key == "rst1") {
      ok = parseInt(value, -1, 65535, number);
      result.rst[key[3] - '0'] = static_cast<int>(number);
    } else if (key == "hz") {
      ok = parseInt(value, 1, 4294967295LL, number);
      result.hz = static_cast<uint32_t>(number);
    } else if (key == "mode") {
      ok = parseInt(value, 0, 3, number);
      result.mode = static_cast<uint8_t>(number);
    } else {
      error = "unknown key \"" + key + "\"";
      return false;
    }
    if (!ok) {
      error = "bad value \"" + value + "\" for " + key;
      return false;
    }
    start = end + 1;
  }
  for (int dc : result.dc)
    for (int rst : result.rst)
      if (dc == rst) {
        error = "GPIO line " + std::to_string(dc) + " cannot be both data/command and reset";
        return false;
      }
  out = result;
  return true;
}

std::string St7789Options::describe() const {
  return "spi0=" + spi[0] + ",spi1=" + spi[1] + ",gpiochip=" + gpiochip +
         ",dc0=" + std::to_string(dc[0]) + ",dc1=" + std::to_string(dc[1]) +
         ",rst0=" + std::to_string(rst[0]) + ",rst1=" + std::to_string(rst[1]) +
         ",hz=" + std::to_string(hz) + ",mode=" + std::to_string(mode);
}

std::unique_ptr<PanelTransport> makeSpidevTransport(const St7789Options& options) {
  return std::make_unique<SpidevTransport>(options);
}

std::unique_ptr<LcdOutput> makeSt7789Output(const std::string& options) {
  St7789Options parsed;
  std::string error;
  if (!St7789Options::parse(options, parsed, error)) {
    spdlog::error("EYE_LCD=\"st7789:{}\": {}", options, error);
    return nullptr;
  }
  return std::make_unique<St7789Output>(makeSpidevTransport(parsed));
}

// ---------------------------------------------------------------------------------
St7789Output::St7789Output(std::unique_ptr<PanelTransport> transport)
    : transport_(std::move(transport)) {}

std::string St7789Output::describe() const {
  return "st7789:" + transport_->describe();
}

int St7789Output::send(uint8_t panel, bool data, const uint8_t* bytes, size_t size) {
  int status = transport_->setDataCommand(panel, data);
  if (status != 0) return failure(status);
  // Whole pixel pairs (3 bytes) per transfer where the limit allows, so that no
  // transfer, and no chip-select pulse, splits a pixel.
  size_t chunk = transport_->maxTransfer();
  if (chunk >= 3) chunk -= chunk % 3;
  if (chunk == 0) chunk = 1;
  while (size > 0) {
    const size_t n = std::min(size, chunk);
    status = transport_->spiWrite(panel, bytes, n);
    if (status != 0) return failure(status);
    bytes += n;
    size -= n;
  }
  return 0;
}

int St7789Output::command(uint8_t panel, uint8_t code, const uint8_t* params, size_t count) {
  const int status = send(panel, false, &code, 1);
  if (status != 0 || count == 0) return status;
  return send(panel, true, params, count);
}

int St7789Output::open_() {
  opened_ = false;
  failing_.fill(false);
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

int St7789Output::write_(uint8_t panel, const uint8_t* frame) {
  if (!opened_ || panel >= LcdControl::kPanels || frame == nullptr) return -1;
  // The whole panel every frame: also puts the write position back after any glitch.
  static constexpr uint8_t kColumns[] = {0, 0, 0, LcdControl::kWidth - 1};
  static constexpr uint8_t kRows[] = {0, 0, 0, LcdControl::kHeight - 1};
  int status = command(panel, ST7789_CASET, kColumns, sizeof kColumns);
  if (status == 0) status = command(panel, ST7789_RASET, kRows, sizeof kRows);
  if (status == 0) status = command(panel, ST7789_RAMWR, nullptr, 0);
  if (status == 0) status = send(panel, true, frame, LcdControl::kFrameBytes);
  if (status != 0) {
    // Logged once until a frame gets through again: frames come 25 times a second.
    if (!failing_[panel])
      spdlog::error("LCD output st7789: writing a frame to panel {} failed ({})", panel,
                    transport_->describe());
    failing_[panel] = true;
    return failure(status);
  }
  failing_[panel] = false;
  return 0;
}
