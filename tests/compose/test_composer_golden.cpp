// Frames of scaled, clipped and turning scenes against hashes kept in the repository,
// so x86-64 and AArch64 (under qemu) must compose the same bytes, on every
// instruction set the machine has. After a deliberate change to the frames,
// regenerate with EYE_GOLDEN_UPDATE=1 on one architecture and check on the other.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "EyeSideAnimation.h"
#include "Eyes.h"
#include "LcdControl.h"
#include "compose/Composer.h"

namespace {

constexpr int N = Eyes::kSize;
const char* const kGoldenFile = EYE_TEST_SOURCE_DIR "/golden/composer_frames.txt";

// A w x h image of `bytes` per pixel, each pixel from `paint(x, y, pixel)`. Integer
// arithmetic only, so the images are the same everywhere.
template <typename Paint>
VContent image(int w, int h, int bytes, Paint paint) {
  VContent out;
  out.width = static_cast<uint16_t>(w);
  out.height = static_cast<uint16_t>(h);
  out.frames.emplace_back(static_cast<size_t>(w) * h * bytes);
  uint8_t* p = out.frames[0].data();
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x, p += bytes) paint(x, y, p);
  return out;
}

// Lid rows fade in from the lid's open edge.
VContent lid(int h, bool top) {
  return image(N, h, 4, [h, top](int x, int y, uint8_t* p) {
    const int edge = top ? h - 1 - y : y;
    p[0] = 9, p[1] = static_cast<uint8_t>(x % 7), p[2] = 4;
    p[3] = static_cast<uint8_t>(edge * 255 / (h - 1) ^ (x & 1));
  });
}

TEST(ComposerGoldenTest, FramesMatchTheCommittedHashesOnEveryInstructionSet) {
  ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
  // The iris has flat patches (equal neighbours are where a reordered or fused bilinear
  // sum lands on the other side of an integer), a little noise, and a soft rim.
  VContent iris = image(120, 120, 4, [](int x, int y, uint8_t* p) {
    const int dx = 2 * x - 120, dy = 2 * y - 120, d = (dx * dx + dy * dy) * 255 / (120 * 120);
    p[0] = static_cast<uint8_t>((x / 8 * 3 + y / 8 * 5) % 16);
    p[1] = static_cast<uint8_t>(d / 20 % 16);
    p[2] = static_cast<uint8_t>((x * 7 + y) % 16);
    p[3] = static_cast<uint8_t>(d < 150 ? 255 : (d > 255 ? 0 : (255 - d) * 2 + (x & 3)));
  });
  VContent background = image(N, N, 3, [](int x, int y, uint8_t* p) {
    p[0] = static_cast<uint8_t>(x / 15), p[1] = static_cast<uint8_t>(y / 15);
    p[2] = static_cast<uint8_t>((x + y) % 16);
  });
  VContent topLid = lid(60, true), bottomLid = lid(45, false);
  uint8_t topColour[4] = {3, 2, 1, 255}, bottomColour[4] = {12, 5, 8, 180};
  Eyes left{true, 100, 140}, right{false, 140, 140};
  for (Eyes* eye : {&left, &right}) {
    eye->iris = &iris, eye->background = &background, eye->topLid = &topLid;
    eye->bottomLid = &bottomLid, eye->topLidColor = topColour, eye->bottomLidColor = bottomColour;
    eye->offsetX = 7, eye->offsetY = -3;
  }

  // Every scene composed once, by name (several frames of the turning track).
  auto composeAll = [&] {
    std::map<std::string, uint64_t> frames;
    auto frame = [&](const std::string& name, Eyes& eye, float sx, float sy, int x, int y,
                     short top, short bottom) {
      EXPECT_EQ(eye.set_Frame_12Bit(sx, sy, x, y, top, bottom), 0);
      uint64_t hash = 14695981039346656037ull;  // FNV-1a
      for (uint8_t b : LcdControl::lastFrame(eye.isLeft ? 0 : 1))
        hash = (hash ^ b) * 1099511628211ull;
      frames[name] = hash;
    };
    frame("downscaled", left, 0.7f, 0.55f, 120, 120, 40, 210);
    frame("bilinear", left, 1.3f, 1.1f, 120, 120, 60, 200);
    frame("right-eye", right, 1.17f, 0.83f, 131, 97, 25, 230);
    frame("beyond-256", left, 2.6f, 2.3f, 90, 150, 0, 240);
    frame("clipped-overlapping-lids", right, 0.93f, 1.07f, -20, 250, 150, 100);
    // An elliptic turn with scaling, frame by frame as the player feeds it back.
    EyeSideAnimation track;
    track.events.push_back(moveEvent(150, 100, 480, 0, 1.45f, 0.8f, 40.0, 30, 215, 0, 0, 300, 35));
    short xy[2] = {100, 140}, lids[2] = {0, 240};
    float scale[2] = {1.0f, 1.0f};
    for (int step = 0; step < 16 && track.calculateXY(xy[0], xy[1], xy, scale[0], scale[1], scale,
                                                      lids[0], lids[1], lids);
         ++step)
      frame("turn-" + std::to_string(step), left, scale[0], scale[1], xy[0], xy[1], lids[0],
            lids[1]);
    return frames;
  };

  std::map<std::string, uint64_t> golden;
  std::ifstream in(kGoldenFile);
  for (std::string name, hash; in >> name >> hash;) golden[name] = std::stoull(hash, nullptr, 16);
  bool update = std::getenv("EYE_GOLDEN_UPDATE") != nullptr;
  for (eyeframe::Isa isa : {eyeframe::Isa::Portable, eyeframe::Isa::Avx2, eyeframe::Isa::Neon}) {
    if (!eyeframe::selectIsa(isa)) continue;
    const std::map<std::string, uint64_t> frames = composeAll();
    if (update) {  // from the first instruction set; the others are checked against it
      std::ofstream out(kGoldenFile);
      for (const auto& [name, hash] : frames) out << name << ' ' << std::hex << hash << '\n';
      golden = frames;
      update = false;
    }
    EXPECT_EQ(frames, golden) << "on " << eyeframe::isaName(isa);
  }
}

}  // namespace
