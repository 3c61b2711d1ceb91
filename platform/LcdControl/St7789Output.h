// ST7789 output of the LCD library: the panel protocol for the robot's two 240 x 240
// panels. The wires are a PanelTransport (SpidevTransport.h on the robot; the tests
// record the byte stream).
//
// The output remembers the last frame each panel got and sends only the windows
// (CASET/RASET, then RAMWR) around what changed; the whole frame after start-up,
// after a failed write, and after requestFullFrames().
#pragma once

#include <array>
#include <atomic>
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

// Bytes sent back to back with the other pieces of one message.
struct SpiPiece {
  const uint8_t* bytes;
  size_t size;
};

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
  // Sends the pieces, in order, as one message (chip select held throughout) where
  // the bus allows; their sizes add up to at most maxTransfer().
  virtual int spiWrite(uint8_t panel, const SpiPiece* pieces, size_t count) = 0;
  // Most bytes in one message.
  virtual size_t maxTransfer() const = 0;
  virtual void delayMs(int ms) = 0;
  virtual std::string describe() const = 0;
};

class St7789Output : public LcdOutput {
 public:
  explicit St7789Output(std::unique_ptr<PanelTransport> transport);
  std::string describe() const override;
  // The next frame of each panel goes whole, whatever the output believes the panel
  // holds (after something else wrote to it, say).
  void requestFullFrames();

  // A rectangle of panel memory: rows [row0, row1] and pixel pairs [pair0, pair1],
  // pair p being columns 2p and 2p + 1 (two 12-bit pixels share three bytes, so a
  // window starts on an even column and takes whole pairs).
  struct Window {
    int row0, row1, pair0, pair1;
  };
  static constexpr int kPairs = LcdControl::kWidth / 2;
  static constexpr size_t kRowBytes = LcdControl::kFrameBytes / LcdControl::kHeight;
  // What a window costs beyond its pixels, in bytes of bus time: its 11 command bytes
  // and six messages (five for the commands and parameters, at least one for the
  // pixels), each with its data/command switch, about 25 us apiece.
  static constexpr size_t kWindowCost = 640;
  // Fills `out` with the windows that carry every byte in which `frame` differs from
  // `shown`, at the least cost found rows top to bottom; returns their number (0: the
  // frames are equal). At most kHeight windows.
  static size_t planWindows(const uint8_t* shown, const uint8_t* frame, Window* out);

 protected:
  // Resets both panels and sends them the start-up sequence.
  int open_() override;
  int write_(uint8_t panel, const uint8_t* frame) override;

 private:
  int command(uint8_t panel, uint8_t code, const uint8_t* params, size_t count);
  int send(uint8_t panel, bool data, const uint8_t* bytes, size_t size);
  // `rows` slices of `width` bytes, `stride` apart, as one stream of data or parameters.
  int stream(uint8_t panel, const uint8_t* first, size_t rows, size_t stride, size_t width);
  int sendWindow(uint8_t panel, const uint8_t* frame, const Window& window);

  std::unique_ptr<PanelTransport> transport_;
  bool opened_ = false;
  std::array<bool, LcdControl::kPanels> failing_{};  // a write failure is logged once
  // What each panel's memory holds, when known.
  std::array<std::array<uint8_t, LcdControl::kFrameBytes>, LcdControl::kPanels> shown_{};
  std::array<bool, LcdControl::kPanels> known_{};
  std::array<std::atomic<bool>, LcdControl::kPanels> fullRequested_{};
  std::array<Window, LcdControl::kHeight> windows_{};
  std::array<SpiPiece, 64> pieces_{};
};
