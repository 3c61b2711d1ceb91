// The wires of the robot's two panels: each on its own Linux SPI device, with
// data/command and reset on GPIO lines. Nothing of the panel protocol lives here.
//
// EYE_LCD=st7789 (all defaults) or EYE_LCD=st7789:KEY=VALUE[,KEY=VALUE...]:
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
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "LcdControl.h"
#include "St7789Output.h"

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

// How many of the `count` pieces (at least one) spidev takes in one SPI_IOC_MESSAGE:
// it copies a message into its bounce buffer of `bufsiz` bytes and refuses one that
// does not fit (EMSGSIZE), so a message of many pieces may have to go as several.
size_t spidevMessagePieces(const SpiPiece* pieces, size_t count, size_t bufsiz,
                           size_t maxTransfers);

// Linux spidev (ioctl interface) and libgpiod for the lines. Lines shared between the
// panels, or still held by the output being replaced, are requested once.
std::unique_ptr<PanelTransport> makeSpidevTransport(const St7789Options& options);
