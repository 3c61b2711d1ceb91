// The studio's request guard and its saving, against the real library on a copy of the
// bundled set.
#include <gtest/gtest.h>
#include <httplib.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <tuple>

#include "EyeTestSupport.h"
#include "Studio.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

std::string readFile(const fs::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

const std::string kDrift = "<Animation Id=\"1\" Name=\"drift\" Categories=\"MISC\"/>";

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

  static httplib::Result save(const json& request, httplib::Headers headers = {}) {
    if (headers.empty()) headers = {{"X-Studio-Token", studio->token()}};
    return httplib::Client("127.0.0.1", port)
        .Post("/api/save", headers, request.dump(), "application/json");
  }

  static inline eyetest::TempDir dir;
  static inline const fs::path file = dir.path() / "eyeanimations.xml";
  static inline std::unique_ptr<Studio> studio;
  static inline int port = 0;
};

json draft(const std::string& name, const std::string& replaces = "") {
  const json event = json::parse(
      R"({"X": 60, "Y": 100, "TimeMs": 100, "Wait": 40, "ScaleX": 1.5, "ScaleY": 555, "LidTopY": 30,)"
      R"( "LidBotY": 240, "TopLidIndex": 2, "BotLidIndex": 1, "RotateAngle": 0, "Ellipse_H": 0})");
  json animation = {{"name", name}, {"id", 7}, {"categories", {"HAPPINESS", "IDLE"}}};
  animation["left"] = {event, event};
  animation["right"] = {event};
  return {{"replaces", replaces}, {"animation", animation}};
}

TEST_F(StudioTest, StrangersAreRefusedAndChangeNothing) {
  const std::string own = "127.0.0.1:" + std::to_string(port), token = studio->token();
  const std::tuple<std::string, std::string, std::string> cases[] = {
      // Host, Origin, token
      {own, "", ""},
      {own, "", "wrong"},
      {own, "http://evil.example", token},
      {own, "http://127.0.0.1:1", token},
      {"evil.example:" + std::to_string(port), "", token}};
  const std::string before = readFile(file);
  for (const auto& [host, origin, key] : cases) {
    httplib::Headers headers = {{"Host", host}, {"X-Studio-Token", key}};
    if (!origin.empty()) headers.emplace("Origin", origin);
    auto res = save(draft("x"), headers);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 403) << host << " " << origin << " " << key;
  }
  EXPECT_EQ(readFile(file), before);
  httplib::Client page("127.0.0.1", port);
  EXPECT_EQ(page.Get("/", {{"Origin", "http://localhost:" + std::to_string(port)}})->status, 200);
}

TEST_F(StudioTest, SavingWritesOnlyItsAnimationOnceTheCheckerPassesIt) {
  const std::string before = readFile(file);
  auto res = save(draft("wave"));
  ASSERT_EQ(res->status, 200) << res->body;
  EXPECT_EQ(readFile(fs::path(file) += ".bak"), before);
  // Every other byte stays: without the new element and its lines the file is the old one.
  const auto without = [](std::string text, const std::string& element) {
    const size_t at = text.find(element);
    if (at == std::string::npos) return "no " + element + " in " + text;
    return text.erase(at - 1, text.find("</Animation>\n", at) + 14 - at);
  };
  const std::string wave = "  <Animation Id=\"7\" Name=\"wave\" Categories=\"HAPPINESS,IDLE\">";
  EXPECT_EQ(without(readFile(file), wave), before);
  EXPECT_NE(readFile(file).find(R"(TimeMs="100" Wait="40" ScaleX="1.5" ScaleY="555")"),
            std::string::npos);

  // Refused: a name already taken, a replaced animation that is gone. Renamed in place.
  EXPECT_EQ(save(draft("drift"))->status, 409);
  EXPECT_EQ(save(draft("b", "gone"))->status, 409);
  ASSERT_EQ(save(draft("wave_2", "wave"))->status, 200);
  EXPECT_EQ(without(readFile(file), "  <Animation Id=\"7\" Name=\"wave_2\""), before);

  // A file the checker refuses is not written, and the answer says why.
  const std::string twice = "<List>" + kDrift + kDrift + "</List>";
  std::ofstream(file) << twice;
  res = save(draft("wave_3"));
  EXPECT_EQ(res->status, 422);
  EXPECT_FALSE(json::parse(res->body)["findings"].empty()) << res->body;
  EXPECT_EQ(readFile(file), twice);
}

}  // namespace
