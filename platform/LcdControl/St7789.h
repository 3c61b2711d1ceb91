// ST7789 output of the LCD library: the robot's two 240 x 240 panels, each an ST7789
// controller on its own Linux SPI device, with data/command and reset on GPIO lines.
//
// Selected with EYE_LCD=st7789 (all defaults) or EYE_LCD=st7789:KEY=VALUE[,KEY=VALUE...]:
//   spi0=/dev/spidev0.0    SPI device of panel 0 (left eye)
//   spi1=/dev/spidev0.1    SPI device of panel 1 (right eye)
//   gpiochip=/dev/gpiochip0  GPIO chip holding the lines below
//   dc0=24, dc1=23         data/command line of each panel (one line may serve both,
//                          since each panel has its own chip select)
//   rst0=25, rst1=22       reset line of each panel (may be shared; -1 = none, the
//                          panel then only gets a software reset)
//   hz=40000000            SPI clock in Hz
//   mode=0                 SPI mode 0..3 (modules without a chip select pin want 3)
// Example: EYE_LCD=st7789:spi1=/dev/spidev1.0,dc1=5,rst1=6,hz=32000000
//
// The SPI and GPIO traffic goes through a PanelTransport, so the output can be driven
// by something other than spidev + libgpiod (the tests record the byte stream).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "LcdControl.h"

// ST7789 commands used by this driver.
enum St7789Command : uint8_t {
  ST7789_SWRESET = 0x01,  // software reset
  ST7789_SLPOUT = 0x11,   // sleep out
  ST7789_NORON = 0x13,    // normal display mode (no partial area)
  ST7789_INVON = 0x21,    // display inversion on
  ST7789_DISPON = 0x29,   // display on
  ST7789_CASET = 0x2A,    // column address window: start hi, lo, end hi, lo
  ST7789_RASET = 0x2B,    // row address window: start hi, lo, end hi, lo
  ST7789_RAMWR = 0x2C,    // memory write: pixel data follows until the next command
  ST7789_MADCTL = 0x36,   // memory data access control (scan direction, colour order)
  ST7789_COLMOD = 0x3A,   // interface pixel format
};

// MADCTL bit 3: the first colour of each pixel goes to the blue sub-pixel.
constexpr uint8_t ST7789_MADCTL_BGR = 0x08;
// COLMOD: low three bits 011 = 12 bits per pixel on the serial interface.
constexpr uint8_t ST7789_COLMOD_12BIT = 0x53;

// The wires of the two panels. Every call returns 0 or a negative status.
class PanelTransport {
 public:
  virtual ~PanelTransport() = default;
  // Acquires the devices; logs what it cannot open. Called again on re-initialisation.
  virtual int open() = 0;
  // Data/command line of `panel`: true = the bytes that follow are data or parameters.
  virtual int setDataCommand(uint8_t panel, bool data) = 0;
  // Reset line of `panel` (active low).
  virtual int reset(uint8_t panel, bool level) = 0;
  // Sends `size` bytes (at most maxTransfer()) to `panel` in one transfer.
  virtual int spiWrite(uint8_t panel, const uint8_t* bytes, size_t size) = 0;
  // Largest single transfer, in bytes.
  virtual size_t maxTransfer() const = 0;
  virtual void delayMs(int ms) = 0;
  virtual std::string describe() const = 0;
};

struct St7789Options {
  std::array<std::string, LcdControl::kPanels> spi{"/dev/spidev0.0", "/dev/spidev0.1"};
  std::string gpiochip = "/dev/gpiochip0";
  std::array<int, LcdControl::kPanels> dc{24, 23};
  std::array<int, LcdControl::kPanels> rst{25, 22};
  uint32_t hz = 40000000;
  uint8_t mode = 0;

  // Parses the text after "st7789:" (empty = defaults) over the defaults. On a bad key
  // or value returns false with `error` saying which.
  static bool parse(const std::string& text, St7789Options& out, std::string& error);
  std::string describe() const;
};

// Linux spidev (ioctl interface) and libgpiod for the lines. Lines shared between the
// panels, or still held by the output being replaced, are requested once.
std::unique_ptr<PanelTransport> makeSpidevTransport(const St7789Options& options);

class St7789Output : public LcdOutput {
 public:
  explicit St7789Output(std::unique_ptr<PanelTransport> transport);
  std::string describe() const override;

 protected:
  // Resets both panels and sends them the start-up sequence.
  int open_() override;
  // Sets the full-panel window and streams the 86400-byte frame into panel memory.
  int write_(uint8_t panel, const uint8_t* frame) override;

 private:
  int command(uint8_t panel, uint8_t code, const uint8_t* params, size_t count);
  int send(uint8_t panel, bool data, const uint8_t* bytes, size_t size);

  std::unique_ptr<PanelTransport> transport_;
  bool opened_ = false;
  std::array<bool, LcdControl::kPanels> failing_{};  // a write failure is logged once
};

// The output for EYE_LCD=st7789[:OPTIONS] on spidev + libgpiod; nullptr after logging a
// bad option. `options` is the text after "st7789:".
std::unique_ptr<LcdOutput> makeSt7789Output(const std::string& options);
