// Colour table. (The helpers beside it, a clock, a path check and a getline loop, are used
// by every timed play and every catalogue read.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <tuple>

#include "Color.h"

TEST(ColorTest, EveryCodeHasAnUpperCaseNameThatMapsBackAndUnknownsAreBlack) {
  std::set<std::tuple<int, int, int>> panelColours;
  for (int i = 0; i < static_cast<int>(ColorCode::COUNT); ++i) {
    const std::string name = Color::getColorName(static_cast<ColorCode>(i));
    EXPECT_FALSE(name.empty() || std::any_of(name.begin(), name.end(), ::islower)) << name;
    EXPECT_EQ(static_cast<int>(Color::getColorCode(name)), i) << name;
    // The panels show 4 bits per channel: no two named colours may look the same there.
    const Color c = Color::getColor(static_cast<ColorCode>(i));
    panelColours.insert({c.red >> 4, c.green >> 4, c.blue >> 4});
  }
  EXPECT_EQ(panelColours.size(), static_cast<size_t>(ColorCode::COUNT));
  for (const char* name : {"", "red", "RED ", " RED", "REDX", "COUNT", "GREY"})
    EXPECT_EQ(Color::getColorCode(name), ColorCode::BLACK) << '"' << name << '"';
  EXPECT_EQ(Color::getColorName(ColorCode::COUNT), "");
  EXPECT_EQ(Color::getColor(ColorCode::COUNT).green + Color::getColor(ColorCode::COUNT).red, 0);
}
