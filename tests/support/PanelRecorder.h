// The panels without hardware: a recording transport captures the wire traffic and a
// model of the ST7789 controller replays it into panel memory, live or afterwards.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "LcdControl.h"
#include "St7789Output.h"

namespace eyetest {

using Bytes = std::vector<uint8_t>;
class PanelModel;

// What went over the wires, in order.
struct Wire {
  enum Kind { RESET, DATA_COMMAND, SPI, DELAY };
  struct Event {
    Kind kind;
    uint8_t panel;
    bool level;   // reset level, D/C level, or the D/C level the SPI bytes went with
    Bytes bytes;  // of one message
    int ms;
  };
  std::vector<Event> events;
  bool keepEvents = true;
  std::array<PanelModel*, LcdControl::kPanels> live{};  // fed every event as it happens
  size_t maxTransfer = 4096;
  int openStatus = 0;
  int opens = 0;
  long spiFailsAfter = -1;  // successful SPI messages left before they fail; -1 = never
  size_t spiBytes = 0;      // pixel and command bytes sent, all panels

  void record(const Event& e);
};

// One ST7789 as far as this driver uses it: commands with their parameters, the
// address window, and 12-bit pixel data into a 240 x 240 memory.
class PanelModel {
 public:
  struct Command {
    uint8_t code;
    Bytes params;
    int atMs;  // time stamp from the recorded delays
  };

  PanelModel() { memory_.fill(kUnwritten); }
  // Replays the traffic of `panel` recorded so far.
  PanelModel(const Wire& wire, uint8_t panel) : PanelModel() {
    panel_ = panel;
    for (const auto& e : wire.events) apply(e);
  }
  void follow(uint8_t panel) { panel_ = panel; }

  // The clock advances with every delay, whichever panel.
  void apply(const Wire::Event& e) {
    if (e.kind == Wire::DELAY) now_ += e.ms;
    if (e.panel != panel_) return;
    if (e.kind == Wire::RESET) {
      if (e.level && resetLow_) resetsAtMs.push_back(now_), softwareReset();
      resetLow_ = !e.level;
    } else if (e.kind == Wire::SPI) {
      for (uint8_t byte : e.bytes) e.level ? data(byte) : command(byte);
    }
  }

  std::vector<Command> commands;
  std::vector<int> resetsAtMs;
  std::vector<size_t> pixelsPerWrite;  // pixels streamed after each RAMWR
  int leftoverNibbles = 0;             // of the last RAMWR: a pixel cut short

  // 8-bit RGB like LcdControl::unpack12Bit; pixels never written come out as 1, 2, 3,
  // which no 12-bit colour expands to.
  Bytes picture() const {
    Bytes rgb;
    for (uint16_t p : memory_) {
      if (p == kUnwritten) rgb.insert(rgb.end(), {1, 2, 3});
      for (int shift : {8, 4, 0})
        if (p != kUnwritten) rgb.push_back(static_cast<uint8_t>((p >> shift & 15) * 17));
    }
    return rgb;
  }

 private:
  static constexpr uint16_t kUnwritten = 0xFFFF;
  static constexpr int kSize = 240;

  void softwareReset() {
    madctl_ = 0, colmod_ = 0x66;
    x0_ = y0_ = 0, x1_ = y1_ = 239;
    inRamWrite_ = false;
  }

  void command(uint8_t code) {
    commands.push_back({code, {}, now_});
    inRamWrite_ = code == ST7789_RAMWR;
    if (code == ST7789_SWRESET) softwareReset();
    if (inRamWrite_) {
      x_ = x0_, y_ = y0_;
      nibbleCount_ = leftoverNibbles = 0;
      pixelsPerWrite.push_back(0);
    }
  }

  void data(uint8_t byte) {
    if (commands.empty()) {
      ADD_FAILURE() << "data byte before any command";
      return;
    }
    if (inRamWrite_) {
      nibble(byte >> 4);
      nibble(byte & 15);
      return;
    }
    Command& c = commands.back();
    c.params.push_back(byte);
    const Bytes& p = c.params;
    if (c.code == ST7789_CASET && p.size() == 4) x0_ = p[0] << 8 | p[1], x1_ = p[2] << 8 | p[3];
    if (c.code == ST7789_RASET && p.size() == 4) y0_ = p[0] << 8 | p[1], y1_ = p[2] << 8 | p[3];
    if (c.code == ST7789_COLMOD) colmod_ = p[0];
    if (c.code == ST7789_MADCTL) madctl_ = p[0];
  }

  void nibble(uint8_t n) {
    ASSERT_EQ(colmod_ & 7, 3) << "pixel data while not in 12-bit mode";
    nibbles_[nibbleCount_++] = n;
    leftoverNibbles = nibbleCount_;
    if (nibbleCount_ < 3) return;
    nibbleCount_ = leftoverNibbles = 0;
    // The controller takes red first unless MADCTL asks for blue first.
    const bool bgr = madctl_ & ST7789_MADCTL_BGR;
    const uint8_t r = nibbles_[bgr ? 2 : 0], g = nibbles_[1], b = nibbles_[bgr ? 0 : 2];
    if (x_ < kSize && y_ < kSize)
      memory_[y_ * kSize + x_] = static_cast<uint16_t>(r << 8 | g << 4 | b);
    ++pixelsPerWrite.back();
    if (++x_ > x1_) {
      x_ = x0_;
      if (++y_ > y1_) y_ = y0_;
    }
  }

  uint8_t panel_ = 0;
  int now_ = 0;
  bool resetLow_ = false;
  std::array<uint16_t, kSize * kSize> memory_;
  bool inRamWrite_ = false;
  int madctl_ = 0, colmod_ = 0x66;
  int x0_ = 0, x1_ = 239, y0_ = 0, y1_ = 239, x_ = 0, y_ = 0;
  uint8_t nibbles_[3] = {};
  int nibbleCount_ = 0;
};

inline void Wire::record(const Event& e) {
  if (e.kind == SPI) spiBytes += e.bytes.size();
  for (PanelModel* model : live)
    if (model != nullptr) model->apply(e);
  if (keepEvents) events.push_back(e);
}

class RecordingTransport : public PanelTransport {
 public:
  explicit RecordingTransport(std::shared_ptr<Wire> wire) : wire_(std::move(wire)) {}
  int open() override {
    ++wire_->opens;
    return wire_->openStatus;
  }
  int setDataCommand(uint8_t panel, bool data) override {
    dc_.at(panel) = data;
    wire_->record({Wire::DATA_COMMAND, panel, data, {}, 0});
    return 0;
  }
  int reset(uint8_t panel, bool level) override {
    wire_->record({Wire::RESET, panel, level, {}, 0});
    return 0;
  }
  // One event per message, its pieces joined.
  int spiWrite(uint8_t panel, const SpiPiece* pieces, size_t count) override {
    if (wire_->spiFailsAfter == 0) return -5;
    if (wire_->spiFailsAfter > 0) --wire_->spiFailsAfter;
    Bytes bytes;
    for (size_t i = 0; i < count; ++i)
      bytes.insert(bytes.end(), pieces[i].bytes, pieces[i].bytes + pieces[i].size);
    wire_->record({Wire::SPI, panel, dc_.at(panel), std::move(bytes), 0});
    return 0;
  }
  size_t maxTransfer() const override { return wire_->maxTransfer; }
  void delayMs(int ms) override { wire_->record({Wire::DELAY, 0, false, {}, ms}); }
  std::string describe() const override { return "recording"; }

 private:
  std::shared_ptr<Wire> wire_;
  std::array<bool, LcdControl::kPanels> dc_{};
};

}  // namespace eyetest
