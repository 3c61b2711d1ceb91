#include "SpidevTransport.h"

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

// spidev's bounce buffer, the most one message may carry: a module parameter (4096
// unless changed, e.g. spidev.bufsiz=65536 on the kernel command line).
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

  int spiWrite(uint8_t panel, const SpiPiece* pieces, size_t count) override {
    if (panel >= LcdControl::kPanels || fds_[panel] < 0) return -1;
    while (count > 0) {
      const size_t n = spidevMessagePieces(pieces, count, maxTransfer_, transfers_.size());
      for (size_t i = 0; i < n; ++i) {
        spi_ioc_transfer& transfer = transfers_[i];
        transfer = spi_ioc_transfer{};
        transfer.tx_buf = reinterpret_cast<uintptr_t>(pieces[i].bytes);
        transfer.len = static_cast<uint32_t>(pieces[i].size);
        transfer.speed_hz = options_.hz;
        transfer.bits_per_word = 8;
      }
      // SPI_IOC_MESSAGE(n) spelt out: its array-size form needs a constant n.
      const unsigned long request =
          _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 0, n * sizeof(spi_ioc_transfer));
      if (ioctl(fds_[panel], request, transfers_.data()) < 0) return -1;
      pieces += n;
      count -= n;
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
  // Within SPI_IOC_MESSAGE's size field (14 bits of 32-byte transfers).
  std::array<spi_ioc_transfer, 64> transfers_{};
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

size_t spidevMessagePieces(const SpiPiece* pieces, size_t count, size_t bufsiz,
                           size_t maxTransfers) {
  // Each transfer takes its size rounded up to the DMA alignment: 128 bytes on arm64,
  // less elsewhere; the largest is taken everywhere.
  constexpr size_t kDmaAlign = 128;
  size_t n = 0, used = 0;
  while (n < count && n < maxTransfers) {
    const size_t need = (pieces[n].size + kDmaAlign - 1) / kDmaAlign * kDmaAlign;
    if (n > 0 && used + need > bufsiz) break;
    used += need;
    ++n;
  }
  return n;
}

std::unique_ptr<PanelTransport> makeSpidevTransport(const St7789Options& options) {
  return std::make_unique<SpidevTransport>(options);
}
