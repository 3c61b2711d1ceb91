// Colour table and utility helpers: names, settings defaults, paths, clock, split.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <set>
#include <tuple>

#include "Color.h"
#include "EyeTestSupport.h"
#include "Helper.h"

namespace {
constexpr int kColorCount = static_cast<int>(ColorCode::COUNT);
}

TEST(ColorTest, EveryCodeHasAnUpperCaseNameThatMapsBack) {
  std::set<std::string> names;
  std::set<std::tuple<int, int, int>> panelColours;
  for (int i = 0; i < kColorCount; ++i) {
    const auto code = static_cast<ColorCode>(i);
    const std::string name = Color::getColorName(code);
    ASSERT_FALSE(name.empty()) << i;
    for (char c : name) EXPECT_TRUE(std::isupper(static_cast<unsigned char>(c))) << name;
    EXPECT_EQ(Color::getColorCode(name), code) << name;
    names.insert(name);
    // The panels show 4 bits per channel: no two named colours may look the same there.
    const Color color = Color::getColor(code);
    panelColours.insert({color.red >> 4, color.green >> 4, color.blue >> 4});
  }
  EXPECT_EQ(names.size(), static_cast<size_t>(kColorCount));
  EXPECT_EQ(panelColours.size(), static_cast<size_t>(kColorCount));
}

TEST(ColorTest, TeamColoursExist) {
  for (const char* name : {"BLACK", "WHITE", "RED", "GREEN", "BLUE", "YELLOW", "ORANGE", "PURPLE",
                           "PINK", "CYAN", "BROWN", "GRAY"})
    EXPECT_EQ(Color::getColorName(Color::getColorCode(name)), name);
}

TEST(ColorTest, UnknownNamesAndCodesFallBackToBlack) {
  for (const char* name : {"", "red", "Red", "RED ", " RED", "REDX", "COUNT", "GREY"})
    EXPECT_EQ(Color::getColorCode(name), ColorCode::BLACK) << '"' << name << '"';
  EXPECT_EQ(Color::getColorName(ColorCode::COUNT), "");
  EXPECT_EQ(Color::getColorName(static_cast<ColorCode>(200)), "");
  const Color beyond = Color::getColor(static_cast<ColorCode>(kColorCount));
  EXPECT_EQ(beyond.red + beyond.green + beyond.blue, 0);
}

TEST(SettingsTest, OneRecordWithUsableDefaults) {
  Settings& settings = Helper::getSettings();
  EXPECT_EQ(&settings, &Helper::getSettings());
  EXPECT_LT(settings.defaultIrisShape, 12);
  EXPECT_LT(settings.defaultBackgroundType, 2);
  for (const std::string& style : {settings.defaultIrisStyle, settings.defaultBackgroundStyle}) {
    const ColorCode code = Color::getColorCode(style);
    EXPECT_EQ(Color::getColorName(code), style) << "not a known colour: " << style;
  }
  const std::string saved = settings.defaultIrisStyle;
  settings.defaultIrisStyle = "PINK";
  EXPECT_EQ(Helper::getSettings().defaultIrisStyle, "PINK");
  settings.defaultIrisStyle = saved;
}

TEST(HelperTest, PathInfoTellsFilesDirectoriesAndNothing) {
  eyetest::TempDir dir;
  const std::string file = dir.write("sub/file.xml", "<x/>");
  EXPECT_EQ(Helper::getPathInfo(file.c_str()), 1);
  EXPECT_EQ(Helper::getPathInfo((dir.path() / "sub").c_str()), 2);
  EXPECT_EQ(Helper::getPathInfo((dir.path() / "missing.xml").c_str()), 0);
  EXPECT_EQ(Helper::getPathInfo((file + "/below").c_str()), 0);
  EXPECT_EQ(Helper::getPathInfo(nullptr), 0);
  EXPECT_EQ(Helper::getPathInfo(""), 0);
  EXPECT_EQ(Helper::getPathInfo("/dev/null"), 3);
  const std::string dangling = (dir.path() / "link").string();
  ASSERT_EQ(symlink((dir.path() / "gone").c_str(), dangling.c_str()), 0);
  EXPECT_NE(Helper::getPathInfo(dangling.c_str()), 0);
}

TEST(HelperTest, ClockIsMonotonicMilliseconds) {
  const int64_t start = Helper::clock_ms();
  struct timespec before {};
  clock_gettime(CLOCK_MONOTONIC, &before);
  int64_t previous = start;
  for (int i = 0; i < 10000; ++i) {
    const int64_t now = Helper::clock_ms();
    ASSERT_GE(now, previous);
    previous = now;
  }
  // Same clock as CLOCK_MONOTONIC, in milliseconds.
  const int64_t reference = before.tv_sec * int64_t{1000} + before.tv_nsec / 1000000;
  EXPECT_LE(start, reference);
  EXPECT_GE(previous, reference);
}

TEST(HelperTest, SplitFollowsGetline) {
  using V = std::vector<std::string>;
  EXPECT_EQ(Helper::split("", ','), V{});
  EXPECT_EQ(Helper::split("a", ','), V{"a"});
  EXPECT_EQ(Helper::split("a,b,c", ','), (V{"a", "b", "c"}));
  EXPECT_EQ(Helper::split("a,,b", ','), (V{"a", "", "b"}));
  EXPECT_EQ(Helper::split(",a", ','), (V{"", "a"}));
  EXPECT_EQ(Helper::split("a,", ','), V{"a"});
  EXPECT_EQ(Helper::split("a,,", ','), (V{"a", ""}));
  EXPECT_EQ(Helper::split(",", ','), V{""});
  EXPECT_EQ(Helper::split("1 2.5 x", ' '), (V{"1", "2.5", "x"}));
  EXPECT_EQ(Helper::split("no separator", ';'), V{"no separator"});
}
