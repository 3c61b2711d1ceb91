// Draws every image that the bundled eye catalogues (assets/eye/*.xml) name.
//
//   draw_eye_assets OUT_DIR
//
// Writes OUT_DIR/images/{iris,background,eyelid}/*.png. Everything is computed here,
// deterministically (noise comes from an integer hash, never from a random device), so
// two runs give the same files. Shapes are antialiased by 4 x 4 supersampling; colour
// channels are ordered-dithered to the 4 bits per channel the panels show, so smooth
// gradients do not break into bands on the robot.
#include <Color.h>
#include <VContent.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kPanel = 240;  // panel width; lid images must have exactly this width
constexpr int kSuper = 4;    // supersamples per pixel along each axis

// ---------------------------------------------------------------------------------
// Small colour maths.

struct C3 {
  double r = 0, g = 0, b = 0;
};
C3 operator*(C3 c, double k) {
  return {c.r * k, c.g * k, c.b * k};
}
C3 operator+(C3 a, C3 b) {
  return {a.r + b.r, a.g + b.g, a.b + b.b};
}
C3 mix(C3 a, C3 b, double t) {
  return a * (1.0 - t) + b * t;
}
C3 rgb(int r, int g, int b) {
  return {r / 255.0, g / 255.0, b / 255.0};
}
const C3 kWhite{1, 1, 1};
const C3 kBlack{0, 0, 0};

// Straight (not premultiplied) colour and coverage, all 0..1.
struct Sample {
  C3 c;
  double a = 0;
};
Sample opaque(C3 c) {
  return {c, 1.0};
}
const Sample kClear{};

double clamp01(double v) {
  return std::min(1.0, std::max(0.0, v));
}
double smoothstep(double e0, double e1, double x) {
  const double t = clamp01((x - e0) / (e1 - e0));
  return t * t * (3.0 - 2.0 * t);
}
double sq(double v) {
  return v * v;
}
double brightest(C3 c) {
  return std::max(c.r, std::max(c.g, c.b));
}

C3 namedColor(ColorCode code) {
  const Color c = Color::getColor(code);
  return rgb(c.red, c.green, c.blue);
}

// ---------------------------------------------------------------------------------
// Deterministic noise: an integer hash, smooth value noise and its fractal sum.

uint32_t hash3(int32_t x, int32_t y, uint32_t seed) {
  uint32_t h = seed * 0x9E3779B9u;
  h ^= static_cast<uint32_t>(x) * 0x85EBCA6Bu;
  h = (h << 13) | (h >> 19);
  h ^= static_cast<uint32_t>(y) * 0xC2B2AE35u;
  h ^= h >> 16;
  h *= 0x7FEB352Du;
  h ^= h >> 15;
  h *= 0x846CA68Bu;
  h ^= h >> 16;
  return h;
}
double unit(uint32_t h) {
  return (h >> 8) / 16777216.0;
}  // [0, 1)

double valueNoise(double x, double y, uint32_t seed) {
  const double fx = std::floor(x), fy = std::floor(y);
  const int32_t ix = static_cast<int32_t>(fx), iy = static_cast<int32_t>(fy);
  const double tx = smoothstep(0, 1, x - fx), ty = smoothstep(0, 1, y - fy);
  const double a = unit(hash3(ix, iy, seed)), b = unit(hash3(ix + 1, iy, seed));
  const double c = unit(hash3(ix, iy + 1, seed)), d = unit(hash3(ix + 1, iy + 1, seed));
  return (a * (1 - tx) + b * tx) * (1 - ty) + (c * (1 - tx) + d * tx) * ty;
}

double fbm(double x, double y, uint32_t seed) {
  double sum = 0, amp = 0.5;
  for (int o = 0; o < 4; ++o) {
    sum += amp * valueNoise(x, y, seed + o);
    x *= 2.03;
    y *= 2.03;
    amp *= 0.5;
  }
  return sum / 0.9375;
}

// Small reproducible generator for vein paths.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  double next() {  // [0, 1)
    state_ += 0x9E3779B97F4A7C15ull;
    uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    return (z >> 11) / 9007199254740992.0;
  }
  double range(double lo, double hi) { return lo + (hi - lo) * next(); }

 private:
  uint64_t state_;
};

// ---------------------------------------------------------------------------------
// Rendering: supersampled shading into 8-bit pixels.

struct Image {
  int width = 0;
  int height = 0;
  bool alpha = true;
  std::vector<uint8_t> pixels;  // RGB or RGBA rows, top row first
};

// 4-bit quantisation with a 4 x 4 ordered dither. The result is q * 17, which the
// 12-bit loader (value >> 4) turns back into exactly q.
uint8_t quantise(double v, int x, int y) {
  static const int kBayer[4][4] = {{0, 8, 2, 10}, {12, 4, 14, 6}, {3, 11, 1, 9}, {15, 7, 13, 5}};
  const double threshold = (kBayer[y & 3][x & 3] + 0.5) / 16.0;
  const int q = std::min(15, static_cast<int>(std::floor(clamp01(v) * 15.0 + threshold)));
  return static_cast<uint8_t>(q * 17);
}

using Shader = std::function<Sample(double x, double y)>;  // pixel coordinates

Image render(int width, int height, bool withAlpha, const Shader& shade) {
  Image img{width, height, withAlpha, {}};
  const int bpp = withAlpha ? 4 : 3;
  img.pixels.resize(static_cast<size_t>(width) * height * bpp);
  const double step = 1.0 / kSuper;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      C3 sum;
      double cover = 0;
      for (int j = 0; j < kSuper; ++j) {
        for (int i = 0; i < kSuper; ++i) {
          const Sample s = shade(x + (i + 0.5) * step, y + (j + 0.5) * step);
          sum = sum + s.c * s.a;
          cover += s.a;
        }
      }
      // Colour averaged over the covered samples only, so edges keep their colour and
      // fade through alpha alone.
      const C3 c = cover > 0 ? sum * (1.0 / cover) : C3{};
      const double a = withAlpha ? cover / (kSuper * kSuper) : 1.0;
      uint8_t* p = &img.pixels[(static_cast<size_t>(y) * width + x) * bpp];
      p[0] = quantise(c.r, x, y);
      p[1] = quantise(c.g, x, y);
      p[2] = quantise(c.b, x, y);
      if (withAlpha) p[3] = static_cast<uint8_t>(std::lround(clamp01(a) * 255.0));
    }
  }
  return img;
}

// ---------------------------------------------------------------------------------
// Irises. Shaders take coordinates relative to the iris centre, in units of the iris
// radius (u to the right, v downwards).

constexpr int kIrisSize = 116;  // classic, modern, space and symbol irises
constexpr int kGlowSize = 120;  // glow irises carry a halo
constexpr double kIrisRadius = 56.0;

using IrisShader = std::function<Sample(double u, double v)>;

Image renderIris(int size, double radius, const IrisShader& shade) {
  const double centre = size / 2.0;
  return render(size, size, true, [&](double x, double y) {
    return shade((x - centre) / radius, (y - centre) / radius);
  });
}

// White catch lights: one large, one small, the same light for every iris.
C3 addHighlights(C3 col, double u, double v, double big = 0.14, double small = 0.05) {
  const double h1 = 1.0 - smoothstep(big * 0.8, big, std::hypot(u + 0.33, v + 0.35));
  const double h2 = 1.0 - smoothstep(small * 0.7, small, std::hypot(u - 0.30, v - 0.28));
  col = mix(col, kWhite, 0.95 * h1);
  return mix(col, kWhite, 0.8 * h2);
}

// A realistic iris: radial gradient with fibres, a brighter collarette, a dark limbal
// ring, a black pupil and catch lights.
Sample classicIris(C3 base, double u, double v) {
  const double t = std::hypot(u, v);
  if (t > 1.0) return kClear;
  if (brightest(base) < 0.08) base = rgb(40, 40, 46);  // a black iris keeps its pupil visible
  const C3 inner = mix(base, kWhite, 0.35);
  const C3 outer = base * 0.72;
  C3 col = mix(inner, outer, smoothstep(0.36, 0.86, t));

  const double th = std::atan2(v, u);
  const double fibre = 0.5 + 0.5 * std::sin(th * 38.0 + 2.5 * std::sin(th * 5.0 + t * 9.0));
  const double fibreAmount = 1.0 - smoothstep(0.80, 0.92, t);
  col = col * (0.88 + 0.24 * fibre * fibreAmount);
  col = mix(col, mix(inner, kWhite, 0.2), 0.35 * std::exp(-sq((t - 0.52) / 0.05)));
  col = mix(col, base * 0.2, smoothstep(0.82, 0.97, t));
  col = mix(col, rgb(5, 5, 8), 1.0 - smoothstep(0.355, 0.375, t));
  return opaque(addHighlights(col, u, v));
}

// Flat, illustrated iris: two tones, a crisp outline and a large pupil.
Sample modernIris(C3 base, double u, double v) {
  const double t = std::hypot(u, v);
  if (t > 1.0) return kClear;
  C3 col = mix(base, kWhite, 0.22 * smoothstep(-0.1, 0.9, v));
  col = mix(col, base * 0.55, smoothstep(0.885, 0.9, t));
  col = mix(col, rgb(14, 16, 30), 1.0 - smoothstep(0.45, 0.465, t));
  const double h1 = 1.0 - smoothstep(0.195, 0.205, std::hypot(u + 0.30, v + 0.30));
  const double h2 = 1.0 - smoothstep(0.075, 0.085, std::hypot(u - 0.26, v + 0.02));
  col = mix(col, kWhite, std::max(h1, h2));
  return opaque(col);
}

// Neon ring on a dark disc, with a halo that fades out through alpha.
Sample glowIris(C3 base, double u, double v) {
  const double t = std::hypot(u, v);
  if (t > 1.0) return kClear;
  const double ring = 0.72;
  const double core = std::exp(-sq((t - ring) / 0.035));
  const double halo = std::exp(-sq((t - ring) / 0.13));
  const C3 dark = rgb(6, 8, 14);
  if (t < ring) {
    C3 col = mix(dark, base, 0.18 * (t / ring) + 0.8 * halo);
    col = mix(col, base, std::exp(-sq((t - 0.26) / 0.03)));  // inner pupil ring
    col = mix(col, kWhite, 0.75 * core);
    return opaque(addHighlights(col, u, v, 0.09, 0.04));
  }
  const C3 col = mix(base, kWhite, 0.75 * core);
  return {col, std::max(core, halo) * (1.0 - smoothstep(0.88, 1.0, t))};
}

// A deep-space disc: nebula clouds, stars, and a black hole with a glowing rim.
Sample nebulaIris(double u, double v) {
  const double t = std::hypot(u, v);
  if (t > 1.0) return kClear;
  const double n = fbm(u * 2.6 + 7.0, v * 2.6 + 3.0, 11);
  const double m = fbm(u * 3.1 - 4.0, v * 3.1 + 9.0, 29);
  C3 col = mix(rgb(6, 6, 26), rgb(104, 30, 140), smoothstep(0.35, 0.75, n));
  col = mix(col, rgb(20, 150, 170), 0.7 * smoothstep(0.5, 0.8, m));
  // Stars: at most one per 0.08 x 0.08 cell.
  const double cell = 0.08;
  const int32_t cx = static_cast<int32_t>(std::floor(u / cell));
  const int32_t cy = static_cast<int32_t>(std::floor(v / cell));
  const uint32_t h = hash3(cx, cy, 77);
  if (unit(h) < 0.28) {
    const double sx = (cx + 0.2 + 0.6 * unit(hash3(cx, cy, 78))) * cell;
    const double sy = (cy + 0.2 + 0.6 * unit(hash3(cx, cy, 79))) * cell;
    col = mix(col, kWhite, std::exp(-sq(std::hypot(u - sx, v - sy) / 0.014)));
  }
  const double rim = std::exp(-sq((t - 0.3) / 0.04));
  col = mix(col, rgb(255, 170, 60), 0.9 * rim);
  col = mix(col, kBlack, 1.0 - smoothstep(0.25, 0.27, t));
  col = mix(col, col * 0.35, smoothstep(0.8, 1.0, t));
  return opaque(col);
}

// A spiral galaxy; `mirror` turns the spiral the other way for the right eye.
Sample galaxyIris(bool mirror, double u, double v) {
  if (mirror) u = -u;
  const double t = std::hypot(u, v);
  if (t > 1.0) return kClear;
  const double th = std::atan2(v, u);
  const double arms = 0.5 + 0.5 * std::cos(2.0 * th - 7.0 * std::log(t + 0.08));
  const double dust = fbm(u * 5.0 + 1.5, v * 5.0 - 2.5, 41);
  C3 col = rgb(8, 6, 30);
  col = mix(col, rgb(90, 110, 230), std::pow(arms, 3.0) * (1.0 - smoothstep(0.2, 1.0, t)));
  col = mix(col, rgb(230, 120, 220), 0.45 * smoothstep(0.55, 0.85, dust) * arms);
  col = mix(col, rgb(255, 240, 200), std::exp(-sq(t / 0.2)));
  const uint32_t h = hash3(static_cast<int32_t>(std::floor(u / 0.07)),
                           static_cast<int32_t>(std::floor(v / 0.07)), 91);
  if (unit(h) < 0.15) {
    const double sx = (std::floor(u / 0.07) + 0.5) * 0.07;
    const double sy = (std::floor(v / 0.07) + 0.5) * 0.07;
    col = mix(col, kWhite, 0.9 * std::exp(-sq(std::hypot(u - sx, v - sy) / 0.012)));
  }
  col = mix(col, col * 0.4, smoothstep(0.85, 1.0, t));
  return opaque(col);
}

// Heart: the classic sextic curve, with a dark outline and a catch light.
Sample heartIris(double u, double v) {
  auto inside = [](double x, double y) {
    return std::pow(x * x + y * y - 1.0, 3.0) - x * x * y * y * y <= 0.0;
  };
  const double x = u * 1.2, y = -v * 1.2 + 0.1;
  if (!inside(x, y)) return kClear;
  C3 col = mix(rgb(255, 90, 120), rgb(200, 20, 60), smoothstep(-0.9, 0.9, v));
  if (!inside(x * 1.08, y * 1.08)) col = rgb(120, 10, 40);
  return opaque(addHighlights(col, u + 0.08, v + 0.05, 0.12, 0.0));
}

// Five-pointed star, point up, gold with an outline.
Sample starIris(double u, double v) {
  auto inside = [](double x, double y, double scale) {
    bool in = false;
    for (int i = 0, j = 9; i < 10; j = i++) {
      const double ri = (i % 2 ? 0.45 : 1.0) * scale, rj = (j % 2 ? 0.45 : 1.0) * scale;
      const double ai = -kPi / 2 + i * kPi / 5, aj = -kPi / 2 + j * kPi / 5;
      const double xi = ri * std::cos(ai), yi = ri * std::sin(ai);
      const double xj = rj * std::cos(aj), yj = rj * std::sin(aj);
      if ((yi > y) != (yj > y) && x < (xj - xi) * (y - yi) / (yj - yi) + xi) in = !in;
    }
    return in;
  };
  const double yShift = v - 0.08;  // the star's mass sits a little low; centre it
  if (!inside(u, yShift, 1.0)) return kClear;
  const double t = std::hypot(u, yShift);
  C3 col = mix(rgb(255, 236, 140), rgb(230, 160, 0), smoothstep(0.0, 0.8, t));
  if (!inside(u, yShift, 0.9)) col = rgb(150, 90, 0);
  return opaque(addHighlights(col, u + 0.12, v + 0.05, 0.1, 0.0));
}

// ---------------------------------------------------------------------------------
// Backgrounds: 240 x 240, no alpha.

Image renderBackground(const std::function<C3(double x, double y)>& shade) {
  return render(kPanel, kPanel, false, [&](double x, double y) { return opaque(shade(x, y)); });
}

double vignette(double x, double y) {  // 0 in the middle, 1 in the corners
  return smoothstep(60.0, 175.0, std::hypot(x - 120.0, y - 120.0));
}

C3 sclera(double x, double y) {
  return mix(rgb(252, 250, 246), rgb(214, 200, 204), vignette(x, y));
}

// Thin red veins creeping in from the rim, drawn into a supersampled coverage map.
class VeinMap {
 public:
  VeinMap() : cover_(static_cast<size_t>(kPanel * kSuper) * kPanel * kSuper, 0.0f) {
    Rng rng(20240611);
    for (int i = 0; i < 16; ++i) {
      const double a = 2.0 * kPi * (i + rng.range(-0.3, 0.3)) / 16.0;
      grow(120 + 128 * std::cos(a), 120 + 128 * std::sin(a), a + kPi + rng.range(-0.4, 0.4),
           rng.range(1.4, 2.0), rng.range(45, 85), rng, 0);
    }
  }
  double at(double x, double y) const {
    const int sx = std::min(kPanel * kSuper - 1, static_cast<int>(x * kSuper));
    const int sy = std::min(kPanel * kSuper - 1, static_cast<int>(y * kSuper));
    return cover_[static_cast<size_t>(sy) * kPanel * kSuper + sx];
  }

 private:
  void grow(double x, double y, double dir, double width, double length, Rng& rng, int depth) {
    const double stepLen = 4.0;
    for (double done = 0; done < length && width > 0.3; done += stepLen) {
      dir += rng.range(-0.35, 0.35);
      const double nx = x + stepLen * std::cos(dir), ny = y + stepLen * std::sin(dir);
      const double nw = width * 0.97;
      segment(x, y, nx, ny, width, nw);
      if (depth < 2 && rng.next() < 0.12)
        grow(nx, ny, dir + (rng.next() < 0.5 ? -0.7 : 0.7), nw * 0.7, (length - done) * 0.6, rng,
             depth + 1);
      x = nx;
      y = ny;
      width = nw;
    }
  }
  // Stamps a tapered segment; coverage is the analytic distance falloff, kept as the
  // maximum of overlapping segments.
  void segment(double x0, double y0, double x1, double y1, double w0, double w1) {
    const int n = kPanel * kSuper;
    const double pad = std::max(w0, w1) + 1.0;
    const int xa = std::max(0, static_cast<int>((std::min(x0, x1) - pad) * kSuper));
    const int xb = std::min(n - 1, static_cast<int>((std::max(x0, x1) + pad) * kSuper));
    const int ya = std::max(0, static_cast<int>((std::min(y0, y1) - pad) * kSuper));
    const int yb = std::min(n - 1, static_cast<int>((std::max(y0, y1) + pad) * kSuper));
    const double dx = x1 - x0, dy = y1 - y0, len2 = dx * dx + dy * dy;
    for (int sy = ya; sy <= yb; ++sy) {
      for (int sx = xa; sx <= xb; ++sx) {
        const double px = (sx + 0.5) / kSuper, py = (sy + 0.5) / kSuper;
        const double k = clamp01(((px - x0) * dx + (py - y0) * dy) / len2);
        const double d = std::hypot(px - (x0 + k * dx), py - (y0 + k * dy));
        const double half = 0.5 * (w0 + (w1 - w0) * k);
        const float c = static_cast<float>(1.0 - smoothstep(half - 0.3, half + 0.3, d));
        float& cell = cover_[static_cast<size_t>(sy) * n + sx];
        cell = std::max(cell, c);
      }
    }
  }
  std::vector<float> cover_;
};

// ---------------------------------------------------------------------------------
// Eyelids: 240 pixels wide. A top lid is opaque above its edge curve and transparent
// below it (its bottom row lands just above the lid line); a bottom lid is the other
// way round (its top row lands on the lid line). The catalogue's fill colour paints
// beyond the image, so the skin far from the edge is exactly that colour.

const C3 kLidSkin = rgb(34, 51, 68);  // = 4-bit (2, 3, 4): dithering leaves it flat

// Skin shade at `depth` pixels inside the lid from its edge: a dark lash line, a soft
// highlight on the rounded rim, then plain skin from 10 pixels in.
C3 lidShade(double depth) {
  C3 col = mix(rgb(10, 14, 22), kLidSkin, smoothstep(1.5, 3.0, depth));
  const double rim = std::exp(-sq((depth - 5.0) / 1.8));
  col = mix(col, rgb(84, 104, 126), 0.45 * rim);
  return depth >= 10.0 ? kLidSkin : col;
}

using EdgeCurve = std::function<double(double x)>;  // edge row at column x, image rows

Image renderLid(int height, bool top, const EdgeCurve& edge) {
  return render(kPanel, height, true, [&](double x, double y) {
    const double e = edge(x);
    const double slope = (edge(x + 0.5) - edge(x - 0.5));
    const double depth = (top ? e - y : y - e) / std::sqrt(1.0 + slope * slope);
    if (depth < 0) return kClear;
    return opaque(lidShade(depth));
  });
}

double across(double x) {
  return (x - 120.0) / 120.0;
}  // -1 .. 1 over the panel

// Top lids. The edge is given as the height (in rows) above the image's bottom.
Image topLid(int height, const std::function<double(double u)>& rise) {
  return renderLid(height, true, [&](double x) { return height - rise(across(x)); });
}
// Bottom lids. The edge is given as the depth (in rows) below the image's top.
Image bottomLid(int height, const std::function<double(double u)>& drop) {
  return renderLid(height, false, [&](double x) { return drop(across(x)); });
}

// Rippling top lid: frames 240 x 240 stacked vertically in one sprite sheet. The whole
// frame above the edge is skin, because animated lids have no fill colour.
Image rippleSheet(int frames) {
  const int h = kPanel;
  return render(kPanel, h * frames, true, [&](double x, double y) {
    const int f = std::min(frames - 1, static_cast<int>(y / h));
    const double fy = y - f * h;
    const double phase = 2.0 * kPi * f / frames;
    auto edge = [&](double xx) {
      return h - 14.0 - 8.0 * std::sin(2.0 * kPi * xx / 120.0 - phase) -
             10.0 * (1.0 - sq(across(xx)));
    };
    const double e = edge(x), slope = edge(x + 0.5) - edge(x - 0.5);
    const double depth = (e - fy) / std::sqrt(1.0 + slope * slope);
    if (depth < 0) return kClear;
    return opaque(lidShade(depth));
  });
}

// ---------------------------------------------------------------------------------

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

class Writer {
 public:
  explicit Writer(std::string root) : root_(std::move(root)) {}
  void write(const std::string& relative, const Image& img) {
    const std::filesystem::path path = std::filesystem::path(root_) / relative;
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    if (VContent::writePng(path.string(), img.width, img.height, img.pixels.data(), img.alpha)) {
      ++written_;
    } else {
      std::fprintf(stderr, "draw_eye_assets: cannot write %s\n", path.string().c_str());
      ++failed_;
    }
  }
  int written() const { return written_; }
  int failed() const { return failed_; }

 private:
  std::string root_;
  int written_ = 0;
  int failed_ = 0;
};

void drawIrises(Writer& out) {
  for (int i = 0; i < static_cast<int>(ColorCode::COUNT); ++i) {
    const auto code = static_cast<ColorCode>(i);
    const C3 base = namedColor(code);
    out.write("images/iris/classic_" + lower(Color::getColorName(code)) + ".png",
              renderIris(kIrisSize, kIrisRadius,
                         [&](double u, double v) { return classicIris(base, u, v); }));
  }
  for (ColorCode code : {ColorCode::BLUE, ColorCode::GREEN, ColorCode::PURPLE, ColorCode::PINK}) {
    const C3 base = namedColor(code);
    out.write("images/iris/modern_" + lower(Color::getColorName(code)) + ".png",
              renderIris(kIrisSize, kIrisRadius,
                         [&](double u, double v) { return modernIris(base, u, v); }));
  }
  for (ColorCode code : {ColorCode::CYAN, ColorCode::MAGENTA, ColorCode::LIME, ColorCode::ORANGE}) {
    const C3 base = namedColor(code);
    out.write("images/iris/glow_" + lower(Color::getColorName(code)) + ".png",
              renderIris(kGlowSize, kGlowSize / 2.0 - 1.0,
                         [&](double u, double v) { return glowIris(base, u, v); }));
  }
  out.write("images/iris/space_nebula.png", renderIris(kIrisSize, kIrisRadius, nebulaIris));
  out.write("images/iris/space_galaxy_left.png",
            renderIris(kIrisSize, kIrisRadius,
                       [](double u, double v) { return galaxyIris(false, u, v); }));
  out.write("images/iris/space_galaxy_right.png",
            renderIris(kIrisSize, kIrisRadius,
                       [](double u, double v) { return galaxyIris(true, u, v); }));
  out.write("images/iris/symbol_heart.png", renderIris(kIrisSize, kIrisRadius, heartIris));
  out.write("images/iris/symbol_star.png", renderIris(kIrisSize, kIrisRadius, starIris));
}

void drawBackgrounds(Writer& out) {
  out.write("images/background/sclera.png", renderBackground(sclera));
  const VeinMap veins;
  out.write("images/background/veined.png", renderBackground([&](double x, double y) {
              const double rimWeight =
                  0.35 + 0.65 * smoothstep(40.0, 130.0, std::hypot(x - 120, y - 120));
              return mix(sclera(x, y), rgb(196, 54, 62), 0.7 * veins.at(x, y) * rimWeight);
            }));
  out.write("images/background/dark.png", renderBackground([](double x, double y) {
              return mix(rgb(34, 40, 62), rgb(2, 2, 6), vignette(x, y));
            }));
  out.write("images/background/aurora.png", renderBackground([](double x, double y) {
              const double wave = 0.5 + 0.5 * std::sin(x / 38.0 + y / 90.0);
              C3 col = mix(rgb(24, 170, 180), rgb(110, 50, 170), smoothstep(0, 240, y + 30 * wave));
              return mix(col, rgb(10, 8, 30), 0.6 * vignette(x, y));
            }));
}

void drawLids(Writer& out) {
  // 0: neutral top lid, a gentle arch.
  out.write("images/eyelid/neutral_top.png",
            topLid(28, [](double u) { return 12.0 * (1.0 - u * u); }));
  // 1: neutral bottom lid, a gentle sag.
  out.write("images/eyelid/neutral_bottom.png",
            bottomLid(24, [](double u) { return 8.0 * (1.0 - u * u); }));
  // 2: angry: the lid falls towards the middle of the panel in a rounded V. The same
  // image is shown on both eyes, so a symmetric V gives both a lowered, frowning edge.
  out.write("images/eyelid/angry_top.png",
            topLid(72, [](double u) { return 54.0 * std::sqrt(u * u + 0.01) - 5.4; }));
  // 3: sad: the lid hangs low at both corners and lifts in the middle.
  out.write("images/eyelid/sad_top.png",
            topLid(72, [](double u) { return 52.0 * (1.0 - std::sqrt(u * u + 0.01)) + 5.2; }));
  // 4: happy: the bottom lid rises in an arch, pushing the eye into a smile.
  out.write("images/eyelid/happy_bottom.png", bottomLid(72, [](double u) { return 58.0 * u * u; }));
  // 5: sleepy: a heavy, nearly straight top lid.
  out.write("images/eyelid/sleepy_top.png",
            topLid(24, [](double u) { return 4.0 * (1.0 - u * u); }));
  // 6 (animated): rippling top lid, 8 frames.
  out.write("images/eyelid/ripple_top_sheet.png", rippleSheet(8));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUT_DIR\n", argv[0]);
    return 2;
  }
  Writer out(argv[1]);
  drawIrises(out);
  drawBackgrounds(out);
  drawLids(out);
  if (out.failed() != 0) return 1;
  std::printf("draw_eye_assets: %d images in %s\n", out.written(), argv[1]);
  return 0;
}
