#include "Color.h"

#include <array>
#include <cstddef>

namespace {

struct NamedColor {
  const char* name;
  Color color;
};

// sRGB values. GREEN is a darker green than LIME so that the two stay apart once the
// panels reduce every channel to 4 bits; no two colours share a 12-bit value.
constexpr std::array<NamedColor, static_cast<size_t>(ColorCode::COUNT)> kColors{{
    {"BLACK", {0, 0, 0}},
    {"WHITE", {255, 255, 255}},
    {"RED", {255, 0, 0}},
    {"GREEN", {0, 200, 0}},
    {"BLUE", {0, 0, 255}},
    {"YELLOW", {255, 255, 0}},
    {"ORANGE", {255, 165, 0}},
    {"PURPLE", {128, 0, 128}},
    {"PINK", {255, 192, 203}},
    {"CYAN", {0, 255, 255}},
    {"BROWN", {165, 42, 42}},
    {"GRAY", {128, 128, 128}},
    {"MAGENTA", {255, 0, 255}},
    {"LIME", {0, 255, 0}},
    {"NAVY", {0, 0, 128}},
    {"TEAL", {0, 128, 128}},
    {"GOLD", {255, 215, 0}},
    {"SILVER", {192, 192, 192}},
}};

bool named(ColorCode code) {
  return static_cast<size_t>(code) < kColors.size();
}

}  // namespace

std::string Color::getColorName(ColorCode code) {
  return named(code) ? kColors[static_cast<size_t>(code)].name : "";
}

ColorCode Color::getColorCode(const std::string& name) {
  for (size_t i = 0; i < kColors.size(); ++i)
    if (name == kColors[i].name) return static_cast<ColorCode>(i);
  return ColorCode::BLACK;
}

Color Color::getColor(ColorCode code) {
  return named(code) ? kColors[static_cast<size_t>(code)].color : Color{};
}
