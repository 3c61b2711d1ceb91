// Colour library: named colours and their 8-bit components.
#pragma once

#include <cstdint>
#include <string>

// Named colours. Names are the upper-case English words of the enumerators.
// An unknown name maps to ColorCode::BLACK (see Color::getColorCode).
enum class ColorCode : uint8_t {
  BLACK = 0,
  WHITE,
  RED,
  GREEN,
  BLUE,
  YELLOW,
  ORANGE,
  PURPLE,
  PINK,
  CYAN,
  BROWN,
  GRAY,
  MAGENTA,
  LIME,
  NAVY,
  TEAL,
  GOLD,
  SILVER,
  COUNT  // number of named colours; not a colour
};

struct Color {
  uint8_t red = 0;
  uint8_t green = 0;
  uint8_t blue = 0;

  // "BLACK", "WHITE", ...; the empty string for a code that names no colour.
  static std::string getColorName(ColorCode code);
  // Exact, case-sensitive match of the whole name; ColorCode::BLACK when unknown.
  static ColorCode getColorCode(const std::string& name);
  // The colour's 8-bit components; black for a code that names no colour.
  static Color getColor(ColorCode code);
};
static_assert(sizeof(Color) == 3, "Color is three bytes: red, green, blue");
