// Colour table and utility helpers: names, settings defaults, paths, clock, split.
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <set>
#include <tuple>

#include "Color.h"
#include "EyeTestSupport.h"
#include "Helper.h"

TEST(ColorTest, EveryCodeHasAnUpperCaseNameThatMapsBackAndUnknownsAreBlack) {
  const int count = static_cast<int>(ColorCode::COUNT);
  std::set<std::tuple<int, int, int>> panelColours;
  for (int i = 0; i < count; ++i) {
    const auto code = static_cast<ColorCode>(i);
    const std::string name = Color::getColorName(code);
    ASSERT_FALSE(name.empty()) << i;
    for (char c : name) EXPECT_TRUE(std::isupper(static_cast<unsigned char>(c))) << name;
    EXPECT_EQ(Color::getColorCode(name), code) << name;
    // The panels show 4 bits per channel: no two named colours may look the same there.
    const Color color = Color::getColor(code);
    panelColours.insert({color.red >> 4, color.green >> 4, color.blue >> 4});
  }
  EXPECT_EQ(panelColours.size(), static_cast<size_t>(count));

  for (const char* name : {"", "red", "RED ", " RED", "REDX", "COUNT", "GREY"})
    EXPECT_EQ(Color::getColorCode(name), ColorCode::BLACK) << '"' << name << '"';
  EXPECT_EQ(Color::getColorName(static_cast<ColorCode>(200)), "");
  const Color beyond = Color::getColor(ColorCode::COUNT);
  EXPECT_EQ(beyond.red + beyond.green + beyond.blue, 0);
}

TEST(HelperTest, SettingsDefaultsAreKnownNames) {
  Settings& settings = Helper::getSettings();
  EXPECT_EQ(&settings, &Helper::getSettings());
  EXPECT_LT(settings.defaultIrisShape, 12);
  EXPECT_LT(settings.defaultBackgroundType, 2);
  for (const std::string& style : {settings.defaultIrisStyle, settings.defaultBackgroundStyle})
    EXPECT_EQ(Color::getColorName(Color::getColorCode(style)), style) << style;
}

TEST(HelperTest, PathInfoTellsFilesDirectoriesAndNothing) {
  eyetest::TempDir dir;
  const std::string file = dir.write("sub/file.xml", "<x/>");
  EXPECT_EQ(Helper::getPathInfo(file.c_str()), 1);
  EXPECT_EQ(Helper::getPathInfo((dir.path() / "sub").c_str()), 2);
  EXPECT_EQ(Helper::getPathInfo("/dev/null"), 3);
  for (const std::string& nothing : {dir.str() + "missing.xml", file + "/below", std::string()})
    EXPECT_EQ(Helper::getPathInfo(nothing.c_str()), 0) << nothing;
  EXPECT_EQ(Helper::getPathInfo(nullptr), 0);
  const std::string dangling = (dir.path() / "link").string();
  ASSERT_EQ(symlink((dir.path() / "gone").c_str(), dangling.c_str()), 0);
  EXPECT_NE(Helper::getPathInfo(dangling.c_str()), 0);
}

TEST(HelperTest, ClockIsTheMonotonicClockInMilliseconds) {
  const int64_t start = Helper::clock_ms();
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const int64_t end = Helper::clock_ms();
  const int64_t reference = now.tv_sec * int64_t{1000} + now.tv_nsec / 1000000;
  EXPECT_LE(start, reference);
  EXPECT_GE(end, reference);
}

TEST(HelperTest, SplitFollowsGetline) {
  using V = std::vector<std::string>;
  const std::pair<const char*, V> cases[] = {
      {"", {}},          {"a", {"a"}},  {"a,b,c", {"a", "b", "c"}}, {"a,,b", {"a", "", "b"}},
      {",a", {"", "a"}}, {"a,", {"a"}}, {"a,,", {"a", ""}},         {",", {""}}};
  for (const auto& [text, pieces] : cases) EXPECT_EQ(Helper::split(text, ','), pieces) << text;
  EXPECT_EQ(Helper::split("1 2.5 x", ' '), (V{"1", "2.5", "x"}));
}
