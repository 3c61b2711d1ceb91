// Colour table and path kinds. (The other helpers, a clock and a getline loop, are used by
// every timed play and every catalogue read.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <tuple>

#include "Color.h"
#include "EyeTestSupport.h"
#include "Helper.h"

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
  EXPECT_EQ(Color::getColorName(static_cast<ColorCode>(200)), "");
  const Color beyond = Color::getColor(ColorCode::COUNT);
  EXPECT_EQ(beyond.red + beyond.green + beyond.blue, 0);
}

// 1 file, 2 directory, 3 anything else that exists (a dangling link too), 0 nothing.
TEST(HelperTest, PathInfoTellsFilesDirectoriesOthersAndNothing) {
  eyetest::TempDir dir;
  const std::string file = dir.write("sub/file.xml", "<x/>"), link = dir.str() + "link";
  ASSERT_EQ(symlink((dir.path() / "gone").c_str(), link.c_str()), 0);
  for (auto [path, kind] : {std::pair{file, 1},
                            {dir.str() + "sub", 2},
                            {"/dev/null", 3},
                            {link, 3},
                            {dir.str() + "missing", 0},
                            {file + "/below", 0},
                            {"", 0}})
    EXPECT_EQ(Helper::getPathInfo(path.c_str()), kind) << path;
  EXPECT_EQ(Helper::getPathInfo(nullptr), 0);
}
