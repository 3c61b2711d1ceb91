// Row planning: where the iris and the lids fall on the panel, worked out once a frame.
#include "Plan.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace eyeframe {

int truncateToInt(float value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483520.0f) return std::numeric_limits<int>::max();
  if (value <= -2147483648.0f) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

// Bilinear sample with neighbours pinned inside the frame, for the rare rows whose
// neighbours reach past it (such neighbours always carry weight 0).
void samplePinned(uint8_t* out, const uint8_t* src, size_t pixels, float ratioX, float ratioY,
                  short col, short row, int width) {
  const float fx = static_cast<float>(col) * ratioX;
  const float fy = static_cast<float>(row) * ratioY;
  const short ix = static_cast<short>(truncateToInt(fx));
  const short iy = static_cast<short>(truncateToInt(fy));
  const float dx = fx - static_cast<float>(ix);
  const float dy = fy - static_cast<float>(iy);
  const long long last = static_cast<long long>(pixels) - 1;
  auto at = [&](long long px, long long py) {
    long long index = py * width + px;
    if (index > last) index = last;
    if (index < 0) index = 0;
    return src + index * 4;
  };
  const uint8_t* a = at(ix, iy);
  const uint8_t* b = at(ix + 1, iy);
  const uint8_t* c = at(ix, iy + 1);
  const uint8_t* d = at(ix + 1, iy + 1);
  const float ndx = 1.0f - dx;
  const float ndy = 1.0f - dy;
  for (int k = 0; k < 4; ++k) {
    const float value = static_cast<float>(a[k]) * ndx * ndy + static_cast<float>(b[k]) * dx * ndy +
                        static_cast<float>(c[k]) * ndx * dy + static_cast<float>(d[k]) * dx * dy;
    out[k] = static_cast<uint8_t>(value);
  }
}

const AlphaWeights& alphaWeights() {
  static const AlphaWeights weights = [] {
    AlphaWeights w{};
    for (int k = 0; k < 256; ++k) {
      w.a[k] = static_cast<float>(k / 255.0);
      w.na[k] = 1.0f - w.a[k];
    }
    return w;
  }();
  return weights;
}

Plan makePlan(const Scene& scene) {
  Plan plan;
  if (scene.background.pixels != nullptr && scene.background.bytes >= kBackgroundBytes)
    plan.background = scene.background.pixels;

  const Scene::Layer& iris = scene.iris;
  const int irisW = iris.width;
  const int irisH = iris.height;
  const int scaledW = truncateToInt(static_cast<float>(irisW) * scene.scaleX);
  const int scaledH = truncateToInt(static_cast<float>(irisH) * scene.scaleY);
  const bool shown = iris.pixels != nullptr && irisW > 0 && irisH > 0 && scaledW > 0 &&
                     scaledH > 0 && iris.bytes >= static_cast<size_t>(irisW) * irisH * 4;
  if (shown) {
    plan.left = scene.centreX - scaledW / 2;
    plan.top = scene.centreY - scaledH / 2;
    const long long right = plan.left + scaledW;
    const long long bottom = plan.top + scaledH;
    auto clampToPanel = [](long long v) {
      return static_cast<int>(v < 0 ? 0 : (v > kSize ? kSize : v));
    };
    plan.x0 = clampToPanel(plan.left);
    plan.x1 = clampToPanel(right);
    plan.y0 = clampToPanel(plan.top);
    plan.y1 = clampToPanel(bottom);
    if (plan.x0 < plan.x1 && plan.y0 < plan.y1) {
      plan.iris = iris.pixels;
      plan.irisPixels = iris.bytes / 4;
      plan.irisW = irisW;
      plan.irisH = irisH;
      plan.unscaled = irisW == scaledW && irisH == scaledH;
      plan.hugeIris = irisW > kShortMax || irisH > kShortMax;
      plan.ratioX = static_cast<float>(irisW - 1) / static_cast<float>(scaledW);
      plan.ratioY = static_cast<float>(irisH - 1) / static_cast<float>(scaledH);
    }
  }

  auto lid = [](Lid& out, const Scene::Layer& image, const uint8_t* colour, int line, bool on) {
    out.on = on;
    out.line = line;
    out.colour = colour;
    out.height = image.height;
    if (image.pixels != nullptr && image.bytes >= kLidStride * static_cast<size_t>(out.height))
      out.image = image.pixels;
  };
  lid(plan.topLid, scene.topLid, scene.topLidColour, scene.topLidY, scene.topLidY >= 1);
  lid(plan.bottomLid, scene.bottomLid, scene.bottomLidColour, scene.bottomLidY,
      scene.bottomLidY <= kSize - 1);
  return plan;
}

void prepareColumns(const Plan& plan, Columns& cols) {
  const int n = plan.x1 - plan.x0;
  cols.ixMin = std::numeric_limits<int>::max();
  cols.ixMax = 0;
  const int firstCol = static_cast<int>((plan.x0 - plan.left) & 255);
  cols.monotonic = firstCol + n <= 256;
  for (int j = 0; j < n; ++j) {
    const short col = static_cast<short>((firstCol + j) & 255);
    const float fx = static_cast<float>(col) * plan.ratioX;
    const short ix = static_cast<short>(truncateToInt(fx));
    const float dx = fx - static_cast<float>(ix);
    const float ndx = 1.0f - dx;
    for (int k = 0; k < 4; ++k) cols.weight[j][k] = ndx, cols.weight[j][k + 4] = dx;
    cols.offset[j] = ix * 4;
    cols.ixMin = std::min<int>(cols.ixMin, ix);
    cols.ixMax = std::max<int>(cols.ixMax, ix);
  }
  for (int j = 0; j < n; ++j) cols.rowByte[j] = (cols.offset[j] / 4 - cols.ixMin) * 16;
}

}  // namespace eyeframe
