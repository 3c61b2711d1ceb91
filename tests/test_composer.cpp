// The 12-bit frame composer, read back from the LCD driver's memory output.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <array>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EyeSideAnimation.h"
#include "EyeTestSupport.h"
#include "Eyes.h"
#include "LcdControl.h"
#include "VContent.h"
#include "moveEvent.h"

namespace {

constexpr int N = 240;
using Rgb = std::array<uint8_t, 3>;
using Rgba = std::array<uint8_t, 4>;

// A whole panel in 4-bit channels, row-major.
struct Frame {
  std::vector<uint8_t> px = std::vector<uint8_t>(N * N * 3, 0);
  Rgb at(int x, int y) const {
    const size_t i = (static_cast<size_t>(y) * N + x) * 3;
    return {px[i], px[i + 1], px[i + 2]};
  }
  void set(int x, int y, Rgb c) {
    const size_t i = (static_cast<size_t>(y) * N + x) * 3;
    px[i] = c[0], px[i + 1] = c[1], px[i + 2] = c[2];
  }
};

VContent backgroundOf(const std::function<Rgb(int, int)>& colour) {
  VContent image;
  image.width = image.height = N;
  image.frames.emplace_back(N * N * 3);
  for (int y = 0; y < N; ++y)
    for (int x = 0; x < N; ++x) {
      const Rgb c = colour(x, y);
      std::copy(c.begin(), c.end(), image.frames[0].begin() + (y * N + x) * 3);
    }
  return image;
}

VContent rgbaImage(int w, int h, const std::function<Rgba(int, int)>& colour) {
  VContent image;
  image.width = static_cast<uint16_t>(w);
  image.height = static_cast<uint16_t>(h);
  image.frames.emplace_back(static_cast<size_t>(w) * h * 4);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const Rgba c = colour(x, y);
      std::copy(c.begin(), c.end(), image.frames[0].begin() + (static_cast<size_t>(y) * w + x) * 4);
    }
  return image;
}

// Background pattern that differs from pixel to pixel, so misplacement shows.
Rgb backgroundPattern(int x, int y) {
  return {static_cast<uint8_t>(x % 16), static_cast<uint8_t>(y % 16),
          static_cast<uint8_t>((x / 16 + y) % 16)};
}

Rgb rgbOf(const Rgba& c) {
  return {c[0], c[1], c[2]};
}

// What an opaque, unscaled iris of at most 256 pixels looks like at (left, top).
Frame placed(const std::function<Rgb(int, int)>& background, int w, int h,
             const std::function<Rgba(int, int)>& iris, long left, long top) {
  Frame f;
  for (int y = 0; y < N; ++y)
    for (int x = 0; x < N; ++x) {
      const bool inside = x >= left && x < left + w && y >= top && y < top + h;
      f.set(x, y,
            inside ? rgbOf(iris(static_cast<int>(x - left), static_cast<int>(y - top)))
                   : background(x, y));
    }
  return f;
}

class ComposerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    unsetenv("EYE_LCD");
    ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);
  }

  void SetUp() override {
    LcdControl::resetCounters();
    background_ = backgroundOf(backgroundPattern);
    for (Eyes* eye : {&left_, &right_}) {
      eye->iris = &iris_;
      eye->background = &background_;
      eye->topLid = &topLid_;
      eye->bottomLid = &bottomLid_;
      eye->topLidColor = topFill_;
      eye->bottomLidColor = bottomFill_;
    }
  }

  // The frame last written to a panel, back in 4-bit channels.
  static Frame shown(uint8_t panel) {
    const std::vector<uint8_t> packed = LcdControl::lastFrame(panel);
    Frame f;
    if (packed.size() != LcdControl::kFrameBytes) {
      ADD_FAILURE() << "panel " << int(panel) << " holds " << packed.size() << " bytes";
      return f;
    }
    const std::vector<uint8_t> rgb = LcdControl::unpack12Bit(packed.data());
    for (size_t i = 0; i < rgb.size(); ++i) f.px[i] = static_cast<uint8_t>(rgb[i] / 17);
    return f;
  }

  // Compares whole frames; on a difference both go to PNG files for a look.
  void expectFrame(const Frame& expected, const Frame& actual, const std::string& what) {
    for (int y = 0; y < N; ++y)
      for (int x = 0; x < N; ++x)
        if (expected.at(x, y) != actual.at(x, y)) {
          const Rgb e = expected.at(x, y), a = actual.at(x, y);
          const std::string base = dir_.str() + std::to_string(++failures_);
          writeFramePng(expected, base + "-expected.png");
          writeFramePng(actual, base + "-actual.png");
          ADD_FAILURE() << what << ": first difference at (" << x << ", " << y << "): expected ("
                        << int(e[0]) << "," << int(e[1]) << "," << int(e[2]) << ") got ("
                        << int(a[0]) << "," << int(a[1]) << "," << int(a[2]) << "); frames in "
                        << base << "-*.png";
          return;
        }
  }

  static void writeFramePng(const Frame& f, const std::string& path) {
    std::vector<uint8_t> rgb(f.px.size());
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(f.px[i] * 17);
    VContent::writePng(path, N, N, rgb.data(), false);
  }

  Frame compose(Eyes& eye, float sx, float sy, int x, int y, short top = 0, short bottom = 240) {
    EXPECT_EQ(eye.set_Frame_12Bit(sx, sy, x, y, top, bottom), 0);
    return shown(eye.isLeft ? 0 : 1);
  }

  Eyes left_{true, 100, 140};
  Eyes right_{false, 140, 140};
  VContent background_;
  VContent iris_;
  VContent topLid_;
  VContent bottomLid_;
  uint8_t topFill_[4] = {9, 9, 9, 255};
  uint8_t bottomFill_[4] = {5, 5, 5, 255};
  eyetest::TempDir dir_;
  int failures_ = 0;
};

Rgba irisPattern(int x, int y) {
  return {static_cast<uint8_t>(x % 16), static_cast<uint8_t>(y % 16),
          static_cast<uint8_t>((x + 3 * y) % 16), 255};
}

TEST_F(ComposerTest, PacksTwoPixelsIntoThreeBytesPerPanel) {
  iris_ = VContent{};  // nothing over the background
  background_ = backgroundOf([](int x, int y) -> Rgb {
    const int i = y * N + x;
    if (i == 0) return {1, 2, 3};
    if (i == 1) return {4, 5, 6};
    if (i == N * N - 2) return {7, 8, 9};
    if (i == N * N - 1) return {10, 11, 12};
    return {0, 0, 0};
  });
  ASSERT_EQ(left_.set_Frame_12Bit(1.0f, 1.0f, 100, 140, 0, 240), 0);
  ASSERT_EQ(right_.set_Frame_12Bit(1.0f, 1.0f, 140, 140, 0, 240), 0);
  EXPECT_EQ(LcdControl::framesWritten(0), 1u);
  EXPECT_EQ(LcdControl::framesWritten(1), 1u);

  for (uint8_t panel : {0, 1}) {
    const std::vector<uint8_t> bytes = LcdControl::lastFrame(panel);
    ASSERT_EQ(bytes.size(), 86400u);
    // Pair P, Q: [P.b P.g] [P.r Q.b] [Q.g Q.r]
    EXPECT_EQ(bytes[0], 0x32);
    EXPECT_EQ(bytes[1], 0x16);
    EXPECT_EQ(bytes[2], 0x54);
    EXPECT_EQ(bytes[3], 0x00);
    EXPECT_EQ(bytes[86397], 0x98);
    EXPECT_EQ(bytes[86398], 0x7C);
    EXPECT_EQ(bytes[86399], 0xBA);
  }
}

TEST_F(ComposerTest, UnscaledIrisIsCopiedPixelForPixelAndStateIsStored) {
  iris_ = rgbaImage(120, 120, irisPattern);
  const Frame f = compose(left_, 1.0f, 1.0f, 120, 120, 0, 240);
  expectFrame(placed(backgroundPattern, 120, 120, irisPattern, 60, 60), f, "iris at centre");
  EXPECT_EQ(f.at(60, 60), rgbOf(irisPattern(0, 0)));
  EXPECT_EQ(f.at(179, 179), rgbOf(irisPattern(119, 119)));
  EXPECT_EQ(f.at(59, 100), backgroundPattern(59, 100));
  EXPECT_EQ(f.at(180, 179), backgroundPattern(180, 179));
  EXPECT_EQ(left_.getIrisX(), 120);
  EXPECT_EQ(left_.getIrisY(), 120);
  EXPECT_EQ(left_.getTopLidY(), 0);
  EXPECT_EQ(left_.getBottomLidY(), 240);
  EXPECT_FALSE(left_.busy.load());
}

TEST_F(ComposerTest, HorizontalOffsetMirrorsBetweenTheEyes) {
  const auto solid = [](int, int) -> Rgba { return {15, 0, 15, 255}; };
  iris_ = rgbaImage(10, 10, solid);
  left_.offsetX = right_.offsetX = 5;
  left_.offsetY = right_.offsetY = -3;
  // Centres: left 100 - 5 = 95, right 140 + 5 = 145, both 140 - 3 = 137.
  expectFrame(placed(backgroundPattern, 10, 10, solid, 90, 132),
              compose(left_, 1.0f, 1.0f, 100, 140), "left eye");
  expectFrame(placed(backgroundPattern, 10, 10, solid, 140, 132),
              compose(right_, 1.0f, 1.0f, 140, 140), "right eye");
  // The eye keeps the position asked for, not the shifted centre.
  EXPECT_EQ(left_.getIrisX(), 100);
  EXPECT_EQ(right_.getIrisX(), 140);
  EXPECT_EQ(left_.getIrisY(), 140);
}

TEST_F(ComposerTest, IrisIsClippedAtEveryEdgeAndBeyond) {
  iris_ = rgbaImage(120, 120, irisPattern);
  struct Case {
    int x, y;
  };
  const Case cases[] = {{0, 0},      {239, 239}, {-50, 120}, {290, 120}, {120, -59}, {120, 299},
                        {-200, 120}, {120, 500}, {-59, -59}, {-5, 250},  {179, 60},  {60, 179}};
  for (const Case& c : cases) {
    const Frame f = compose(right_, 1.0f, 1.0f, c.x, c.y);
    expectFrame(placed(backgroundPattern, 120, 120, irisPattern, c.x - 60, c.y - 60), f,
                "iris at (" + std::to_string(c.x) + ", " + std::to_string(c.y) + ")");
    EXPECT_EQ(right_.getIrisX(), c.x);
  }
  // Positions are kept in 16 bits.
  compose(right_, 1.0f, 1.0f, 70000, -70000);
  EXPECT_EQ(right_.getIrisX(), static_cast<short>(70000));
  EXPECT_EQ(right_.getIrisY(), static_cast<short>(-70000));
  EXPECT_EQ(LcdControl::framesWritten(1), std::size(cases) + 1);
}

TEST_F(ComposerTest, AlphaBlendsBelow250AndRoundsToNearest) {
  // Opaque above 249, even at 8-bit values where 249 would show.
  unsigned char white[3] = {255, 255, 255};
  unsigned char p250[4] = {0, 0, 0, 250};
  Eyes::removeAlpha_AddBackground(p250, white);
  EXPECT_EQ(Rgba({p250[0], p250[1], p250[2], p250[3]}), Rgba({0, 0, 0, 250}));
  unsigned char p249[4] = {0, 0, 0, 249};
  Eyes::removeAlpha_AddBackground(p249, white);  // 255 * 6/255 + 0.5
  EXPECT_EQ(Rgba({p249[0], p249[1], p249[2], p249[3]}), Rgba({6, 6, 6, 249}));
  unsigned char bg[3] = {0, 50, 255};
  unsigned char p100[4] = {200, 100, 0, 100};
  Eyes::removeAlpha_AddBackground(p100, bg);  // 78.4, 69.6, 155.0 after + 0.5: 78, 70, 155
  EXPECT_EQ(Rgba({p100[0], p100[1], p100[2], p100[3]}), Rgba({78, 70, 155, 100}));

  // In a frame: alpha 255, 128 and 0 over a plain background.
  background_ = backgroundOf([](int, int) -> Rgb { return {0, 15, 7}; });
  iris_ = rgbaImage(3, 1, [](int x, int) -> Rgba {
    const uint8_t alpha[] = {255, 128, 0};
    return {15, 0, 7, alpha[x]};
  });
  const Frame f = compose(left_, 1.0f, 1.0f, 101, 100);  // columns 100..102, row 100
  EXPECT_EQ(f.at(100, 100), Rgb({15, 0, 7}));
  EXPECT_EQ(f.at(101, 100), Rgb({8, 7, 7}));  // 7.53 + 0.5 and 7.47 + 0.5
  EXPECT_EQ(f.at(102, 100), Rgb({0, 15, 7}));
}

TEST_F(ComposerTest, ScaledIrisIsSampledBilinearlyAndTruncated) {
  // A 2 x 2 iris scaled by 4: 8 x 8 pixels, ratio 1/8, so every weight is an exact
  // binary fraction and the expected values can be worked out in double.
  const Rgba corner[4] = {{0, 15, 0, 255}, {8, 0, 15, 255}, {4, 0, 0, 255}, {12, 0, 0, 255}};
  iris_ = rgbaImage(2, 2, [&](int x, int y) { return corner[y * 2 + x]; });
  const Frame f = compose(left_, 4.0f, 4.0f, 120, 120);  // rows and columns 116..123
  for (int row = 0; row < 8; ++row)
    for (int col = 0; col < 8; ++col) {
      const double dx = col / 8.0, dy = row / 8.0;
      Rgb expected;
      for (int k = 0; k < 3; ++k)
        expected[k] = static_cast<uint8_t>(
            std::floor(corner[0][k] * (1 - dx) * (1 - dy) + corner[1][k] * dx * (1 - dy) +
                       corner[2][k] * (1 - dx) * dy + corner[3][k] * dx * dy));
      EXPECT_EQ(f.at(116 + col, 116 + row), expected) << "col " << col << " row " << row;
    }
  // (3, 5): 8*.375*.375 + 4*.625*.625 + 12*.375*.625 = 5.5, red truncated to 5.
  EXPECT_EQ(f.at(119, 121)[0], 5);
  EXPECT_EQ(f.at(115, 116), backgroundPattern(115, 116));
  EXPECT_EQ(f.at(124, 123), backgroundPattern(124, 123));

  // Alpha is interpolated like a colour: the average of 10, 20, 30, 41 is 25.25.
  const unsigned char src[3 * 2 * 4] = {10, 0, 0, 10, 20, 0, 0, 20, 0, 0, 0, 0,
                                        30, 0, 0, 30, 41, 0, 0, 41, 0, 0, 0, 0};
  unsigned char out[4];
  Eyes::setResizedPixel(out, src, 0.5f, 0.5f, 1, 1, 3);
  EXPECT_EQ(Rgba({out[0], out[1], out[2], out[3]}), Rgba({25, 0, 0, 25}));
}

TEST_F(ComposerTest, ScalingTinyIrisesStaysInsideTheirImage) {
  // One pixel and one-row images have neighbours past their edge; they carry no
  // weight and must not be read.
  iris_ = rgbaImage(1, 1, [](int, int) -> Rgba { return {3, 6, 9, 255}; });
  Frame f = compose(left_, 3.0f, 3.0f, 50, 50);  // 3 x 3 at 49..51
  for (int y = 48; y <= 52; ++y)
    for (int x = 48; x <= 52; ++x) {
      const bool inside = x >= 49 && x <= 51 && y >= 49 && y <= 51;
      EXPECT_EQ(f.at(x, y), inside ? Rgb({3, 6, 9}) : backgroundPattern(x, y)) << x << "," << y;
    }
  iris_ = rgbaImage(3, 1, [](int x, int) -> Rgba {
    return {static_cast<uint8_t>(x * 4), 0, 0, 255};
  });
  f = compose(left_, 2.0f, 2.0f, 50, 50);  // 6 x 2 at 47..52, 49..50; ratio 2/6
  EXPECT_EQ(f.at(47, 49)[0], 0);
  EXPECT_EQ(f.at(52, 50)[0], 6);  // col 5: 5/3 -> 4 + 4 * 2/3 = 6.67
  // Shrunk below a pixel: nothing drawn.
  f = compose(left_, 0.5f, 0.5f, 50, 50);
  expectFrame(placed(backgroundPattern, 0, 0, irisPattern, 0, 0), f, "iris shrunk away");
}

TEST_F(ComposerTest, LidsPaintFromTheirLinesWithFillBeyondTheImage) {
  background_ = backgroundOf([](int, int) -> Rgb { return {0, 0, 0}; });
  iris_ = VContent{};
  topLid_ = rgbaImage(N, 10, [](int x, int y) -> Rgba {
    return {static_cast<uint8_t>(y), 1, static_cast<uint8_t>(x % 16), 255};
  });
  bottomLid_ = rgbaImage(N, 10, [](int x, int y) -> Rgba {
    return {static_cast<uint8_t>(y), 3, static_cast<uint8_t>(x % 16), 255};
  });
  const Rgb black{0, 0, 0}, topFill{9, 9, 9}, bottomFill{5, 5, 5};
  auto topRow = [](int x, int r) {
    return Rgb{static_cast<uint8_t>(r), 1, static_cast<uint8_t>(x % 16)};
  };
  auto botRow = [](int x, int r) {
    return Rgb{static_cast<uint8_t>(r), 3, static_cast<uint8_t>(x % 16)};
  };

  struct Case {
    short top, bottom;
  };
  for (const Case c : {Case{0, 240}, Case{-3, 300}, Case{30, 200}, Case{5, 239}, Case{150, 100},
                       Case{240, 240}, Case{1, 0}}) {
    Frame expected;
    for (int y = 0; y < N; ++y)
      for (int x = 0; x < N; ++x) {
        Rgb p = black;
        if (c.top >= 1 && y < c.top) p = y >= c.top - 10 ? topRow(x, y - c.top + 10) : topFill;
        if (c.bottom <= 239 && y >= c.bottom)
          p = y < c.bottom + 10 ? botRow(x, y - c.bottom) : bottomFill;
        expected.set(x, y, p);
      }
    expectFrame(expected, compose(left_, 1.0f, 1.0f, 120, 120, c.top, c.bottom),
                "lids " + std::to_string(c.top) + "/" + std::to_string(c.bottom));
  }
  // A bottom line of 239 paints the last row only, with the lid's first row.
  const Frame last = compose(left_, 1.0f, 1.0f, 120, 120, 0, 239);
  EXPECT_EQ(last.at(7, 239), botRow(7, 0));
  EXPECT_EQ(last.at(7, 238), black);

  // A see-through fill lets the eye show; a half-transparent one blends.
  topFill_[0] = 15, topFill_[1] = 15, topFill_[2] = 15, topFill_[3] = 0;
  bottomFill_[0] = 15, bottomFill_[1] = 15, bottomFill_[2] = 15, bottomFill_[3] = 128;
  const Frame see = compose(left_, 1.0f, 1.0f, 120, 120, 100, 120);
  EXPECT_EQ(see.at(0, 0), black);
  EXPECT_EQ(see.at(0, 95), topRow(0, 5));
  EXPECT_EQ(see.at(0, 239), Rgb({8, 8, 8}));
}

TEST_F(ComposerTest, IrisCountersWrapAt256Pixels) {
  // Columns: an iris 400 wide starting at column -100 shows its column 256 as 0.
  auto byColumn = [](int x, int) -> Rgba {
    return {static_cast<uint8_t>(x % 16), static_cast<uint8_t>(x / 16 % 16),
            static_cast<uint8_t>(x / 256), 255};
  };
  iris_ = rgbaImage(400, 10, byColumn);
  Frame f = compose(left_, 1.0f, 1.0f, 100, 120);  // left 100 - 200 = -100, rows 115..124
  for (int x = 0; x < N; ++x)
    EXPECT_EQ(f.at(x, 115), rgbOf(byColumn((x + 100) % 256, 0))) << "column " << x;

  // Rows: an iris 400 tall starting at row -100 shows its row 256 as 0.
  auto byRow = [](int, int y) -> Rgba {
    return {static_cast<uint8_t>(y % 16), static_cast<uint8_t>(y / 16 % 16),
            static_cast<uint8_t>(y / 256), 255};
  };
  iris_ = rgbaImage(10, 400, byRow);
  f = compose(left_, 1.0f, 1.0f, 120, 100);  // top -100, columns 115..124
  for (int y = 0; y < N; ++y)
    EXPECT_EQ(f.at(120, y), rgbOf(byRow(0, (y + 100) % 256))) << "row " << y;
}

TEST_F(ComposerTest, ImagesWithoutUsableFramesDrawNothingOrBlack) {
  const Frame plain = placed(backgroundPattern, 0, 0, irisPattern, 0, 0);
  VContent shortIris = rgbaImage(120, 120, irisPattern);
  shortIris.frames[0].resize(120 * 119 * 4);
  VContent pastEnd = rgbaImage(120, 120, irisPattern);
  pastEnd.frameIndex = 1;
  VContent noFrames;
  noFrames.width = noFrames.height = 120;
  VContent* irises[] = {nullptr, &shortIris, &pastEnd, &noFrames};
  for (VContent* iris : irises) {
    left_.iris = iris;
    expectFrame(plain, compose(left_, 1.0f, 1.0f, 120, 120), "iris without a usable frame");
    expectFrame(plain, compose(left_, 2.0f, 0.5f, 120, 120), "scaled iris without a usable frame");
  }

  // A background that cannot be read whole is black; the iris still shows.
  iris_ = rgbaImage(10, 10, irisPattern);
  left_.iris = &iris_;
  const auto black = [](int, int) -> Rgb { return {0, 0, 0}; };
  VContent shortBackground = backgroundOf(backgroundPattern);
  shortBackground.frames[0].resize(N * N * 3 - 1);
  VContent emptyBackground;
  for (VContent* background :
       {static_cast<VContent*>(nullptr), &shortBackground, &emptyBackground}) {
    left_.background = background;
    expectFrame(placed(black, 10, 10, irisPattern, 115, 115), compose(left_, 1.0f, 1.0f, 120, 120),
                "background without a usable frame");
  }
}

TEST_F(ComposerTest, LidsWithoutImagesPaintTheirFillAndNeverReadPastTheFrame) {
  background_ = backgroundOf([](int, int) -> Rgb { return {0, 0, 0}; });
  iris_ = VContent{};
  const Rgb black{0, 0, 0};
  // No frames, a null image, a frame too short for its rows: fill colour only.
  VContent shortLid = rgbaImage(N, 10, [](int, int) -> Rgba { return {1, 1, 1, 255}; });
  shortLid.frames[0].resize(N * 10 * 4 - 4);
  for (VContent* lid : {&topLid_, static_cast<VContent*>(nullptr), &shortLid}) {
    left_.topLid = left_.bottomLid = lid;
    const Frame f = compose(left_, 1.0f, 1.0f, 120, 120, 50, 200);
    EXPECT_EQ(f.at(3, 49), Rgb({9, 9, 9}));
    EXPECT_EQ(f.at(3, 50), black);
    EXPECT_EQ(f.at(3, 199), black);
    EXPECT_EQ(f.at(239, 200), Rgb({5, 5, 5}));
  }
  // Without a fill colour only the image is painted.
  topLid_ = rgbaImage(N, 10, [](int, int) -> Rgba { return {2, 2, 2, 255}; });
  left_.topLid = &topLid_;
  left_.topLidColor = nullptr;
  const Frame f = compose(left_, 1.0f, 1.0f, 120, 120, 50, 240);
  EXPECT_EQ(f.at(3, 39), black);
  EXPECT_EQ(f.at(3, 40), Rgb({2, 2, 2}));

  // Called for rows outside the lid image, the paint methods fall back to the fill.
  left_.topLidColor = topFill_;
  unsigned char pixel[4] = {0, 0, 0, 255};
  left_.lid_top_Paint(pixel, 50, 239, 200);  // would be image row 160 of 10
  EXPECT_EQ(Rgb({pixel[0], pixel[1], pixel[2]}), Rgb({9, 9, 9}));
  bottomLid_ = rgbaImage(N, 10, [](int, int) -> Rgba { return {4, 4, 4, 255}; });
  left_.bottomLid = &bottomLid_;
  pixel[0] = pixel[1] = pixel[2] = 0;
  left_.lid_bottom_Paint(pixel, 200, 239, 100);  // image row -100
  EXPECT_EQ(Rgb({pixel[0], pixel[1], pixel[2]}), Rgb({5, 5, 5}));
}

// Holds every frame of panel 0 until released, to catch a second composition.
class GateOutput : public LcdOutput {
 public:
  std::string describe() const override { return "gate"; }
  void release() {
    std::lock_guard<std::mutex> lock(m);
    open_gate = true;
    cv.notify_all();
  }
  std::mutex m;
  std::condition_variable cv;
  bool open_gate = false;
  int entered = 0;

 protected:
  int open_() override { return 0; }
  int write_(uint8_t, const uint8_t*) override {
    std::unique_lock<std::mutex> lock(m);
    ++entered;
    cv.notify_all();
    cv.wait(lock, [this] { return open_gate; });
    return 0;
  }
};

TEST_F(ComposerTest, SecondCompositionOfAnEyeWaitsForTheFirst) {
  iris_ = rgbaImage(10, 10, irisPattern);
  auto gate = std::make_unique<GateOutput>();
  GateOutput* g = gate.get();
  ASSERT_EQ(LcdControl::setOutput(std::move(gate)), 0);

  std::thread first([&] { left_.set_Frame_12Bit(1.0f, 1.0f, 30, 30, 0, 240); });
  {
    std::unique_lock<std::mutex> lock(g->m);
    g->cv.wait(lock, [g] { return g->entered == 1; });
  }
  EXPECT_TRUE(left_.busy.load());
  std::atomic<bool> started{false};
  std::thread second([&] {
    started = true;
    left_.set_Frame_12Bit(1.0f, 1.0f, 200, 200, 0, 240);
  });
  while (!started) std::this_thread::yield();
  // Give the second caller time to (wrongly) get going; it must still be waiting.
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(left_.getIrisX(), 30);
  EXPECT_EQ(LcdControl::framesWritten(0), 1u);
  g->release();
  first.join();
  second.join();
  ASSERT_EQ(LcdControl::init(LCD_COLOR_DEPTH_12BIT), 0);

  EXPECT_EQ(LcdControl::framesWritten(0), 2u);
  EXPECT_EQ(left_.getIrisX(), 200);
  EXPECT_FALSE(left_.busy.load());
  expectFrame(placed(backgroundPattern, 10, 10, irisPattern, 195, 195), shown(0), "second frame");
}

// A still keyframe held for ten frames; only the image sequences move.
EyeSideAnimation stillTrack() {
  EyeSideAnimation track;
  track.events.push_back(moveEvent(555, 555, 0, 400, 555.0f, 555.0f, 40.0, 0, 240, 0, 0, 0, 0));
  return track;
}

// A sequence of plain frames, frame f coloured (base + f) in every channel.
VContent plainSequence(int w, int h, int count, uint8_t base, bool alpha) {
  VContent image;
  image.width = static_cast<uint16_t>(w);
  image.height = static_cast<uint16_t>(h);
  for (int f = 0; f < count; ++f)
    image.AddFrame("frame", w, h, alpha, false, static_cast<uint8_t>(base + f),
                   static_cast<uint8_t>(base + f), static_cast<uint8_t>(base + f), 255);
  return image;
}

TEST_F(ComposerTest, AnimationFramesTickSequencesAndDrawOnlyChanges) {
  VContent previous = rgbaImage(10, 10, irisPattern);
  iris_ = plainSequence(10, 10, 3, 0, true);
  iris_.ratio = 1;
  iris_.loop = 2;  // two plays, then the last frame stays
  iris_.frameIndex = 2;
  background_ = plainSequence(N, N, 2, 10, false);
  background_.ratio = 2;  // each frame held two ticks, for ever
  left_.iris = &previous;
  left_.irisSeq = SequenceState{5, 5, 5};
  topLid_.frameIndex = 3;
  left_.topLidSeq = SequenceState{3, 1, 2};

  EyeSideAnimation track = stillTrack();
  std::vector<int> results, irisShown, backgroundShown;
  for (int call = 0; call < 8; ++call) {
    results.push_back(left_.setAnimationFrame(&track, &iris_, &background_));
    irisShown.push_back(iris_.frameIndex);
    backgroundShown.push_back(background_.frameIndex);
    if (call == 6) {
      // Drawn with the frames shown before this tick advanced them.
      const Frame f = shown(0);
      EXPECT_EQ(f.at(100, 140), Rgb({2, 2, 2}));
      EXPECT_EQ(f.at(0, 0), Rgb({10, 10, 10}));
    }
  }
  EXPECT_EQ(left_.iris, &iris_);
  EXPECT_EQ(irisShown, (std::vector<int>{1, 2, 0, 1, 2, 2, 2, 2}));
  EXPECT_EQ(backgroundShown, (std::vector<int>{0, 1, 0, 0, 1, 0, 0, 1}));
  // The first call draws for the new iris; the eighth finds nothing changed.
  EXPECT_EQ(results, (std::vector<int>{1, 1, 1, 1, 1, 1, 1, 0}));
  EXPECT_EQ(LcdControl::framesWritten(0), 7u);
  EXPECT_EQ(left_.irisSeq.loopsDone, 1);

  int result = 0;
  for (int call = 0; call < 20 && result != 2; ++call)
    result = left_.setAnimationFrame(&track, &iris_, &background_);
  EXPECT_EQ(result, 2);
  EXPECT_TRUE(track.finished);
  EXPECT_EQ(topLid_.frameIndex, 0);
  EXPECT_EQ(left_.topLidSeq.lastFrame, 0);
  EXPECT_EQ(left_.topLidSeq.loopsDone, 0);
  EXPECT_EQ(left_.topLidSeq.tick, 1);

  // A track without events has ended before it starts.
  EyeSideAnimation empty;
  const uint64_t written = LcdControl::framesWritten(0);
  EXPECT_EQ(left_.setAnimationFrame(&empty, &iris_, &background_), 2);
  EXPECT_EQ(LcdControl::framesWritten(0), written);
}

TEST(EyeStateTest, FreshEyeLidIndexesAndLidRecords) {
  Eyes eye(false, -5, 260);
  EXPECT_EQ(eye.getIrisX(), -5);
  EXPECT_EQ(eye.getIrisY(), 260);
  EXPECT_EQ(eye.getScaleX(), 1.0f);
  EXPECT_EQ(eye.getScaleY(), 1.0f);
  EXPECT_EQ(eye.getTopLidY(), 0);
  EXPECT_EQ(eye.getBottomLidY(), 240);
  EXPECT_FALSE(eye.busy.load());

  eye.topLidSeq = eye.bottomLidSeq = SequenceState{4, 2, 7};
  eye.bottomLidIndex = 6;
  eye.SetLidIndex(3, true);
  EXPECT_EQ(eye.topLidIndex, 3);
  EXPECT_EQ(eye.topLidSeq.lastFrame, 0);
  EXPECT_EQ(eye.topLidSeq.loopsDone, 0);
  EXPECT_EQ(eye.topLidSeq.tick, 1);
  EXPECT_EQ(eye.bottomLidIndex, 6);
  EXPECT_EQ(eye.bottomLidSeq.tick, 7);
  eye.SetLidIndex(2, false);
  EXPECT_EQ(eye.bottomLidIndex, 2);
  EXPECT_EQ(eye.bottomLidSeq.loopsDone, 0);
  EXPECT_EQ(eye.topLidIndex, 3);

  EyeLidPart lid;
  lid.name = "half";
  lid.id = 4;
  lid.content = rgbaImage(2, 2, irisPattern);
  lid.color[3] = 200;
  EyeLidPart copy(lid);
  copy.content.frameIndex = 1;
  copy.content.frames[0][0] = 15;
  EXPECT_EQ(lid.content.frameIndex, 0);
  EXPECT_EQ(lid.content.frames[0][0], 0);
  EyeLidPart moved(std::move(lid));
  EXPECT_EQ(moved.name, "half");
  EXPECT_EQ(moved.id, 4);
  EXPECT_EQ(moved.color[3], 200);
  EXPECT_EQ(moved.content.frames.size(), 1u);
  EXPECT_EQ(lid.content.frames.size(), 1u);  // the image was copied, not taken
}

}  // namespace
