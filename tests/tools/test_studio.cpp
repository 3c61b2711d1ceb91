// The studio's request guard and its saving, against the real library on a copy of the
// bundled set.
#include <gtest/gtest.h>
#include <httplib.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "EyeTestSupport.h"
#include "Studio.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

std::string readFile(const fs::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

const std::string kDrift =
    R"(<Animation Id="1" Name="drift" Categories="MISC"><AnimationSide Side="Left"><Event X="60" )"
    R"(Y="100" TimeMs="160" Wait="40" ScaleX="1.2" ScaleY="0.9" LidTopY="40" LidBotY="200" )"
    R"(TopLidIndex="0" BotLidIndex="1" RotateAngle="0" Ellipse_H="0"/></AnimationSide></Animation>)";

class StudioTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    fs::copy(EYE_ASSETS_DIR, dir.path(), fs::copy_options::recursive);
    std::ofstream(file) << "<?xml version=\"1.0\"?>\n<!-- kept -->\n<List>\n" + kDrift +
                               "\n</List>\n";
    // Reloads are asked for, not polled.
    studio =
        std::make_unique<Studio>(StudioOptions{dir.str(), "127.0.0.1", 0, std::chrono::hours(1)});
    port = studio->start();
    ASSERT_GT(port, 0);
  }
  static void TearDownTestSuite() { studio.reset(); }

  httplib::Result save(const json& request) {
    httplib::Client client("127.0.0.1", port);
    return client.Post("/api/save", {{"X-Studio-Token", studio->token()}}, request.dump(),
                       "application/json");
  }

  static inline eyetest::TempDir dir;
  static inline const fs::path file = dir.path() / "eyeanimations.xml";
  static inline std::unique_ptr<Studio> studio;
  static inline int port = 0;
};

json draft(const std::string& name) {
  json event = {{"X", 60},          {"Y", 100},         {"TimeMs", 100},    {"Wait", 40},
                {"ScaleX", 1.5},    {"ScaleY", 555},    {"LidTopY", 30},    {"LidBotY", 240},
                {"TopLidIndex", 2}, {"BotLidIndex", 1}, {"RotateAngle", 0}, {"Ellipse_H", 0}};
  return {{"name", name},
          {"id", 7},
          {"categories", {"HAPPINESS", "IDLE"}},
          {"left", {event, event}},
          {"right", {event}}};
}

TEST_F(StudioTest, StrangersAreRefusedAndChangeNothing) {
  const std::string own = "127.0.0.1:" + std::to_string(port), token = studio->token();
  struct Case {
    std::string host, origin, token;
  } const cases[] = {{own, "", ""},
                     {own, "", "wrong"},
                     {own, "http://evil.example", token},
                     {own, "http://127.0.0.1:1", token},
                     {"evil.example:" + std::to_string(port), "", token}};
  const std::string before = readFile(file);
  httplib::Client stranger("127.0.0.1", port);
  for (const Case& c : cases) {
    httplib::Headers headers = {{"Host", c.host}, {"X-Studio-Token", c.token}};
    if (!c.origin.empty()) headers.emplace("Origin", c.origin);
    auto res = stranger.Post("/api/save", headers, json{{"animation", draft("x")}}.dump(),
                             "application/json");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 403) << c.host << " " << c.origin << " " << c.token;
  }
  EXPECT_EQ(readFile(file), before);
  EXPECT_EQ(stranger.Get("/", {{"Origin", "http://localhost:" + std::to_string(port)}})->status,
            200);
}

TEST_F(StudioTest, SavingWritesOnlyItsAnimationOnceTheCheckerPassesIt) {
  const std::string before = readFile(file);
  auto res = save({{"animation", draft("wave")}});
  ASSERT_EQ(res->status, 200) << res->body;
  EXPECT_EQ(readFile(fs::path(file) += ".bak"), before);
  // Every other byte stays: without the new element and its line break the file is the old one.
  const auto without = [](std::string text, const std::string& element) {
    const size_t at = text.find(element);
    if (at == std::string::npos) return "no " + element + " in " + text;
    return text.erase(at - 1, text.find("</Animation>\n", at) + 14 - at);
  };
  const std::string wave = "  <Animation Id=\"7\" Name=\"wave\" Categories=\"HAPPINESS,IDLE\">";
  EXPECT_EQ(without(readFile(file), wave), before);
  EXPECT_NE(readFile(file).find(R"(TimeMs="100" Wait="40" ScaleX="1.5" ScaleY="555")"),
            std::string::npos);

  // Refused: a name already taken, a replaced animation that is gone.
  EXPECT_EQ(save({{"animation", draft("drift")}})->status, 409);
  EXPECT_EQ(save({{"replaces", "gone"}, {"animation", draft("b")}})->status, 409);
  // Renamed in place.
  ASSERT_EQ(save({{"replaces", "wave"}, {"animation", draft("wave_2")}})->status, 200);
  EXPECT_EQ(without(readFile(file), "  <Animation Id=\"7\" Name=\"wave_2\""), before);

  // A file the checker refuses is not written, and the answer says why.
  const std::string twice = "<List>" + kDrift + kDrift + "</List>";
  std::ofstream(file) << twice;
  res = save({{"animation", draft("wave_3")}});
  EXPECT_EQ(res->status, 422);
  EXPECT_FALSE(json::parse(res->body)["findings"].empty()) << res->body;
  EXPECT_EQ(readFile(file), twice);
}

}  // namespace
