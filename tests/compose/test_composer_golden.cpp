// Frames of scaled, clipped and turning scenes against hashes kept in the repository,
// so x86-64 and AArch64 (under qemu) must compose the same bytes, on every
// instruction set the machine has. After a deliberate change to the frames,
// regenerate with EYE_GOLDEN_UPDATE=1 on one architecture and check on the other.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "EyeSideAnimation.h"
#include "Eyes.h"
#include "LcdControl.h"
#include "VContent.h"
#include "compose/Composer.h"
#include "moveEvent.h"

namespace {

constexpr int N = Eyes::kSize;
const char* const kGoldenFile = EYE_TEST_SOURCE_DIR "/golden/composer_frames.txt";

uint64_t fnv1a(const std::vector<uint8_t>& bytes) {
  uint64_t hash = 14695981039346656037ull;
  for (uint8_t b : bytes) hash = (hash ^ b) * 1099511628211ull;
  return hash;
}

// Images from integer arithmetic only, so they are the same everywhere. The iris has
// flat patches (equal neighbours are where a reordered or fused bilinear sum lands on
// the other side of an integer), a little noise, and a soft rim with mid alphas.
VContent iris(int w, int h) {
  VContent image;
  image.width = static_cast<uint16_t>(w);
  image.height = static_cast<uint16_t>(h);
  image.frames.emplace_back(static_cast<size_t>(w) * h * 4);
  uint8_t* p = image.frames[0].data();
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x, p += 4) {
      const int dx = 2 * x - w, dy = 2 * y - h;
      const int d = (dx * dx + dy * dy) * 255 / (w * w);
      p[0] = static_cast<uint8_t>((x / 8 * 3 + y / 8 * 5) % 16);
      p[1] = static_cast<uint8_t>(d / 20 % 16);
      p[2] = static_cast<uint8_t>((x * 7 + y) % 16);
      p[3] = static_cast<uint8_t>(d < 150 ? 255 : (d > 255 ? 0 : (255 - d) * 2 + (x & 3)));
    }
  return image;
}

VContent background() {
  VContent image;
  image.width = image.height = N;
  image.frames.emplace_back(static_cast<size_t>(N) * N * 3);
  uint8_t* p = image.frames[0].data();
  for (int y = 0; y < N; ++y)
    for (int x = 0; x < N; ++x, p += 3)
      p[0] = static_cast<uint8_t>(x / 15), p[1] = static_cast<uint8_t>(y / 15),
      p[2] = static_cast<uint8_t>((x + y) % 16);
  return image;
}

VContent lid(int h, bool top) {
  VContent image;
  image.width = N;
  image.height = static_cast<uint16_t>(h);
  image.frames.emplace_back(static_cast<size_t>(N) * h * 4);
  uint8_t* p = image.frames[0].data();
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < N; ++x, p += 4) {
      const int edge = top ? h - 1 - y : y;  // rows from the lid's open edge
      p[0] = 9, p[1] = static_cast<uint8_t>(x % 7), p[2] = 4;
      p[3] = static_cast<uint8_t>(edge * 255 / (h - 1) ^ (x & 1));
    }
  return image;
}

class ComposerGoldenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
    for (Eyes* eye : {&left, &right}) {
      eye->iris = &irisImage;
      eye->background = &backgroundImage;
      eye->topLid = &topLid;
      eye->bottomLid = &bottomLid;
      eye->topLidColor = topColour;
      eye->bottomLidColor = bottomColour;
      eye->offsetX = 7;
      eye->offsetY = -3;
    }
  }

  // Every scene composed once, by name (several frames of the turning track).
  std::map<std::string, uint64_t> composeAll() {
    std::map<std::string, uint64_t> frames;
    auto frame = [&](const std::string& name, Eyes& eye, float sx, float sy, int x, int y,
                     short top, short bottom) {
      EXPECT_EQ(eye.set_Frame_12Bit(sx, sy, x, y, top, bottom), 0);
      frames[name] = fnv1a(LcdControl::lastFrame(eye.isLeft ? 0 : 1));
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
    for (int step = 0; step < 16; ++step) {
      short nextXy[2], nextLids[2];
      float nextScale[2];
      if (!track.calculateXY(xy[0], xy[1], nextXy, scale[0], scale[1], nextScale, lids[0], lids[1],
                             nextLids))
        break;
      std::copy(nextXy, nextXy + 2, xy), std::copy(nextLids, nextLids + 2, lids);
      std::copy(nextScale, nextScale + 2, scale);
      frame("turn-" + std::to_string(step), left, scale[0], scale[1], xy[0], xy[1], lids[0],
            lids[1]);
    }
    return frames;
  }

  VContent irisImage = iris(120, 120);
  VContent backgroundImage = background();
  VContent topLid = lid(60, true);
  VContent bottomLid = lid(45, false);
  uint8_t topColour[4] = {3, 2, 1, 255};
  uint8_t bottomColour[4] = {12, 5, 8, 180};
  Eyes left{true, 100, 140};
  Eyes right{false, 140, 140};
};

TEST_F(ComposerGoldenTest, FramesMatchTheCommittedHashesOnEveryInstructionSet) {
  const eyeframe::Isa initial = eyeframe::activeIsa();
  std::map<std::string, uint64_t> golden;
  {
    std::ifstream in(kGoldenFile);
    std::string name, hash;
    while (in >> name >> hash) golden[name] = std::stoull(hash, nullptr, 16);
  }
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
    EXPECT_EQ(frames.size(), golden.size());
    for (const auto& [name, hash] : frames) {
      ASSERT_EQ(golden.count(name), 1u) << name << " missing from " << kGoldenFile;
      EXPECT_EQ(hash, golden[name]) << name << " on " << eyeframe::isaName(isa);
    }
  }
  eyeframe::selectIsa(initial);
}

}  // namespace
