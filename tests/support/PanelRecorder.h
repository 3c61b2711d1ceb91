// The panels without hardware: a recording transport captures the wire traffic, checking
// each message as it goes, and models of the ST7789 controller, fed every event as it
// happens, keep panel memory.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "LcdControl.h"
#include "St7789Output.h"

namespace eyetest {

using Bytes = std::vector<uint8_t>;
class PanelModel;

// What went over the wires, in order.
struct Wire {
  enum Kind { RESET, SPI, DELAY };
  struct Event {
    Kind kind;
    uint8_t panel;
    bool level;   // reset level, or the D/C level the SPI bytes went with
    Bytes bytes;  // of one message
    int ms;
  };
  std::vector<Event> events;
  bool keepEvents = true;
  std::array<PanelModel*, LcdControl::kPanels> live{};  // fed every event as it happens
  size_t maxTransfer = 4096;
  int openStatus = 0;
  long spiFailsAfter = -1;  // successful SPI messages left before they fail; -1 = never
  size_t spiBytes = 0;      // pixel and command bytes sent, all panels

  void record(const Event& e);
};

// One ST7789 as far as this driver uses it: reset line, commands with their parameters,
// the address window, and 12-bit pixel data into a 240 x 240 memory.
class PanelModel {
 public:
  std::vector<std::pair<uint8_t, Bytes>> commands;  // code and parameters
  std::vector<int> commandsAtMs;                    // time stamps from the recorded delays
  std::vector<std::pair<int, int>> resets;          // of the reset line: ms held low, released at
  std::vector<size_t> pixelsPerWrite;               // pixels streamed after each RAMWR
  int leftoverNibbles = 0;                          // of a pixel not complete yet

  // Panel memory as 8-bit RGB like LcdControl::unpack12Bit; pixels never written are
  // 1, 2, 3, which no 12-bit colour expands to.
  PanelModel() : memory_(240 * 240 * 3) {
    for (size_t i = 0; i < memory_.size(); ++i) memory_[i] = static_cast<uint8_t>(i % 3 + 1);
  }
  const Bytes& picture() const { return memory_; }
  void follow(uint8_t panel) { panel_ = panel; }

  // The clock advances with every delay, whichever panel.
  void apply(const Wire::Event& e) {
    if (e.kind == Wire::DELAY) now_ += e.ms;
    if (e.panel != panel_ || e.kind == Wire::DELAY) return;
    if (e.kind == Wire::RESET && e.level && lowSince_ >= 0)
      resets.push_back({now_ - lowSince_, now_}), softwareReset();
    if (e.kind == Wire::RESET) lowSince_ = e.level ? -1 : now_;
    for (uint8_t byte : e.bytes) e.level ? data(byte) : command(byte);
  }

 private:
  void softwareReset() { madctl_ = 0, colmod_ = 0x66, window_ = {0, 239, 0, 239}, ramWrite_ = 0; }

  void command(uint8_t code) {
    commands.push_back({code, {}}), commandsAtMs.push_back(now_);
    if (code == ST7789_SWRESET) softwareReset();
    ramWrite_ = code == ST7789_RAMWR;
    if (ramWrite_)
      x_ = window_[0], y_ = window_[2], leftoverNibbles = 0, pixelsPerWrite.push_back(0);
  }

  void data(uint8_t byte) {
    if (commands.empty()) return ADD_FAILURE() << "data byte before any command";
    if (ramWrite_) return nibble(byte >> 4), nibble(byte & 15);
    auto& [code, p] = commands.back();
    p.push_back(byte);
    const int at = code == ST7789_CASET ? 0 : 2;  // or RASET
    if ((code == ST7789_CASET || code == ST7789_RASET) && p.size() == 4)
      window_[at] = p[0] << 8 | p[1], window_[at + 1] = p[2] << 8 | p[3];
    if (code == ST7789_COLMOD) colmod_ = p[0];
    if (code == ST7789_MADCTL) madctl_ = p[0];
  }

  // The controller takes red first unless MADCTL asks for blue first.
  void nibble(uint8_t n) {
    EXPECT_EQ(colmod_ & 7, 3) << "pixel data while not in 12-bit mode";
    nibbles_[leftoverNibbles++] = n;
    if (leftoverNibbles < 3) return;
    const bool bgr = madctl_ & ST7789_MADCTL_BGR;
    if (x_ < 240 && y_ < 240)
      for (int c = 0; c < 3; ++c) memory_[(y_ * 240 + x_) * 3 + c] = nibbles_[bgr ? 2 - c : c] * 17;
    leftoverNibbles = 0, ++pixelsPerWrite.back();
    if (++x_ > window_[1]) x_ = window_[0], y_ = y_ < window_[3] ? y_ + 1 : window_[2];
  }

  Bytes memory_;
  uint8_t panel_ = 0;
  bool ramWrite_ = false;
  int now_ = 0, lowSince_ = -1, madctl_ = 0, colmod_ = 0x66, x_ = 0, y_ = 0;
  std::array<int, 4> window_{0, 239, 0, 239};  // first and last column, first and last row
  uint8_t nibbles_[3] = {};
};

inline void Wire::record(const Event& e) {
  if (e.kind == SPI) spiBytes += e.bytes.size();
  for (PanelModel* model : live)
    if (model != nullptr) model->apply(e);
  if (keepEvents) events.push_back(e);
}

// Every message fits the limit, and pixel data goes in whole pixel pairs (3 bytes) where
// the limit allows, each message as full as the limit (or the output's 64 pieces to a
// message) allows but the last of a memory write.
class RecordingTransport : public PanelTransport {
 public:
  explicit RecordingTransport(std::shared_ptr<Wire> wire) : wire_(std::move(wire)) {}
  int open() override { return wire_->openStatus; }
  int setDataCommand(uint8_t panel, bool data) override { return dc_.at(panel) = data, 0; }
  int reset(uint8_t panel, bool level) override {
    return wire_->record({Wire::RESET, panel, level, {}, 0}), 0;
  }
  int spiWrite(uint8_t panel, const SpiPiece* pieces, size_t count) override {
    if (wire_->spiFailsAfter == 0) return -5;
    if (wire_->spiFailsAfter > 0) --wire_->spiFailsAfter;
    Bytes bytes;  // one event per message, its pieces joined
    for (size_t i = 0; i < count; ++i)
      bytes.insert(bytes.end(), pieces[i].bytes, pieces[i].bytes + pieces[i].size);
    const size_t limit = wire_->maxTransfer, pairs = limit < 3 ? limit : limit - limit % 3;
    EXPECT_LE(bytes.size(), limit);
    if (!dc_.at(panel)) pixels_[panel] = bytes == Bytes{ST7789_RAMWR}, short_[panel] = false;
    if (dc_[panel] && pixels_[panel]) {
      EXPECT_FALSE(short_[panel]) << "a short message of pixels before the last";
      EXPECT_TRUE(limit < 3 || bytes.size() % 3 == 0) << bytes.size() << " bytes of pixels";
      short_[panel] = bytes.size() < pairs && count < 64;  // or as many pieces as it gathers
    }
    wire_->record({Wire::SPI, panel, dc_[panel], std::move(bytes), 0});
    return 0;
  }
  size_t maxTransfer() const override { return wire_->maxTransfer; }
  void delayMs(int ms) override { wire_->record({Wire::DELAY, 0, false, {}, ms}); }
  std::string describe() const override { return "recording"; }

 private:
  std::shared_ptr<Wire> wire_;
  std::array<bool, LcdControl::kPanels> dc_{}, pixels_{}, short_{};
};

}  // namespace eyetest
