// The studio's HTTP endpoints against the real library, on a copy of the bundled set.
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "EyeControl.h"
#include "LcdControl.h"
#include "Studio.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

// One animation whose end pose differs from the rest pose on every value.
std::string catalogue(const std::string& extraName) {
  const char* event =
      R"(<Event X="%d" Y="%d" TimeMs="160" Wait="40" ScaleX="1.2" ScaleY="0.9" LidTopY="40" )"
      R"(LidBotY="200" TopLidIndex="0" BotLidIndex="1" RotateAngle="0" Ellipse_H="0"/>)";
  char left[256];
  char right[256];
  std::snprintf(left, sizeof left, event, 60, 100);
  std::snprintf(right, sizeof right, event, 180, 90);
  std::string xml = "<List>";
  for (const std::string& name : {std::string("drift"), extraName}) {
    if (name.empty()) continue;
    xml += "<Animation Id=\"1\" Name=\"" + name + "\" Categories=\"MISC\">" +
           "<AnimationSide Side=\"Left\">" + left + "</AnimationSide>" +
           "<AnimationSide Side=\"Right\">" + right + right + "</AnimationSide></Animation>";
  }
  return xml + "</List>";
}

json eventJson(int timeMs, int topLid) {
  return {{"X", 60},          {"Y", 100},         {"TimeMs", timeMs},
          {"Wait", 40},       {"ScaleX", 1.5},    {"ScaleY", 555},
          {"LidTopY", 30},    {"LidBotY", 240},   {"TopLidIndex", topLid},
          {"BotLidIndex", 1}, {"RotateAngle", 0}, {"Ellipse_H", 0}};
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class StudioTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = fs::temp_directory_path() / ("studio-test-" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::copy(EYE_ASSETS_DIR, dir_, fs::copy_options::recursive);
    write("eyeanimations.xml", catalogue(""));
    StudioOptions options;
    options.configDir = dir_.string();
    options.port = 0;
    options.pollInterval = std::chrono::hours(1);  // the tests reload explicitly
    studio_ = new Studio(options);
    port_ = studio_->start();
    ASSERT_GT(port_, 0);
    token_ = studio_->token();
  }
  static void TearDownTestSuite() {
    delete studio_;
    fs::remove_all(dir_);
  }

  static void write(const std::string& name, const std::string& text) {
    std::ofstream(dir_ / name) << text;
  }

  httplib::Result post(const std::string& path, const std::string& form) {
    return client_.Post(path.c_str(), form, "application/x-www-form-urlencoded");
  }
  json get(const std::string& path) {
    auto res = client_.Get(path.c_str());
    EXPECT_TRUE(res && res->status == 200) << path;
    return res ? json::parse(res->body) : json();
  }
  // Polls the state until `done` holds; gives up after a few seconds.
  json waitForState(const std::function<bool(const json&)>& done) {
    json state;
    for (int i = 0; i < 500; ++i) {
      state = get("/api/state");
      if (done(state)) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return state;
  }
  static bool heard(const json& state, const std::string& kind, const std::string& name) {
    for (const auto& e : state["events"])
      if (e["kind"] == kind && e["name"] == name) return true;
    return false;
  }

  static fs::path dir_;
  static Studio* studio_;
  static int port_;
  static std::string token_;
  httplib::Client client_ = [] {
    httplib::Client client("127.0.0.1", port_);
    client.set_default_headers({{"X-Studio-Token", token_}});
    return client;
  }();
};
std::string StudioTest::token_;

fs::path StudioTest::dir_;
Studio* StudioTest::studio_ = nullptr;
int StudioTest::port_ = 0;

TEST_F(StudioTest, BadRequestsAreRefusedWithAReason) {
  struct Case {
    const char* path;
    const char* form;
    int status;
  };
  const Case cases[] = {
      {"/api/play", "", 400},
      {"/api/play", "name=no_such_animation", 404},
      {"/api/iris", "shape=CLASSIC", 400},
      {"/api/iris", "shape=NOT_A_SHAPE&style=RED", 404},
      {"/api/iris", "shape=CLASSIC&style=NO_SUCH_STYLE", 404},
      {"/api/background", "type=IMAGE&style=NO_SUCH_STYLE", 404},
      {"/api/lids", "top=0&bottom=9999", 400},
      {"/api/lids", "top=-1&bottom=0", 400},
      {"/api/position", "side=both&x=0&y=0", 400},
      {"/api/position", "side=left&x=251&y=0", 400},
      {"/api/position", "side=left&x=12abc&y=0", 400},
      {"/api/step", "frame=0", 409},  // nothing played yet
      {"/api/pause", "", 409},
      {"/api/resume", "", 409},
      {"/api/playback", "slowdown=3", 400},
      {"/api/no_such_endpoint", "", 404},
      {"/api/preview", "not json", 400},
      {"/api/preview", R"({"animation":{"id":1}})", 400},
      {"/api/preview", R"({"animation":{"name":"a","id":70000}})", 400},
      {"/api/preview", R"({"animation":{"name":"a","id":1,"categories":["JOY"]}})", 400},
      {"/api/preview", R"({"animation":{"name":"a","id":1,"left":[{"X":1}]}})", 400},
      {"/api/save", R"({"animation":{"name":"drift","id":2}})", 409},  // the name is taken
      {"/api/save", R"({"replaces":"gone","animation":{"name":"b","id":2}})", 409},
  };
  for (const Case& c : cases) {
    auto res = post(c.path, c.form);
    ASSERT_TRUE(res) << c.path;
    EXPECT_EQ(res->status, c.status) << c.path << " " << c.form;
    EXPECT_FALSE(json::parse(res->body).value("error", "").empty()) << c.path << " " << c.form;
  }
  // An event with a lid index beyond the catalogue, and a negative move time.
  json animation = {{"name", "a"}, {"id", 1}, {"left", {eventJson(0, 99)}}};
  EXPECT_EQ(post("/api/preview", json{{"animation", animation}}.dump())->status, 400);
  animation["left"] = {eventJson(-40, 0)};
  EXPECT_EQ(post("/api/preview", json{{"animation", animation}}.dump())->status, 400);
  for (const char* path : {"/api/frame?after=many", "/api/lid?index=99", "/api/lid"}) {
    auto res = client_.Get(path);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 400) << path;
  }
  // A lid picture is the image itself: 8-bit RGBA, its size in the headers.
  auto res = client_.Get("/api/lid?index=1");
  ASSERT_EQ(res->status, 200);
  EXPECT_EQ(res->body.size(), 4 * std::stoul(res->get_header_value("X-Width")) *
                                  std::stoul(res->get_header_value("X-Height")));
  EXPECT_TRUE(get("/api/state")["up"].get<bool>());
}

TEST_F(StudioTest, SteppingToTheLastFrameShowsWhatPlayingDrew) {
  const json started = json::parse(post("/api/play", "name=drift")->body);
  const int frames = started["frames"];
  ASSERT_GT(frames, 2);
  const json state = waitForState([](const json& s) { return heard(s, "complete", "drift"); });
  ASSERT_TRUE(heard(state, "complete", "drift"));
  EXPECT_TRUE(heard(state, "start", "drift"));
  EXPECT_GT(state["frameCounter"].get<int>(), 2);  // more than the start-up frames

  const auto pose = [](const Eyes& e) {
    return std::make_tuple(e.getIrisX(), e.getIrisY(), e.getScaleX(), e.getScaleY(), e.getTopLidY(),
                           e.getBottomLidY());
  };
  const auto playedLeft = pose(EyeControl::Left_Eye);
  const auto playedRight = pose(EyeControl::Right_Eye);
  const auto playedFrame = LcdControl::lastFrame(1);

  const json first = json::parse(post("/api/step", "frame=0")->body);
  EXPECT_EQ(first["left"]["event"], 0);
  EXPECT_NE(pose(EyeControl::Left_Eye), playedLeft);

  const json last = json::parse(post("/api/step", "frame=" + std::to_string(frames - 1))->body);
  EXPECT_EQ(last["left"]["event"], -1);  // the left track is one event shorter
  EXPECT_EQ(last["right"]["event"], 1);
  EXPECT_EQ(last["right"]["x"], EyeControl::Right_Eye.getIrisX());
  EXPECT_EQ(last["right"]["topLidY"], EyeControl::Right_Eye.getTopLidY());
  EXPECT_EQ(pose(EyeControl::Left_Eye), playedLeft);
  EXPECT_EQ(pose(EyeControl::Right_Eye), playedRight);
  EXPECT_EQ(LcdControl::lastFrame(1), playedFrame);
  EXPECT_EQ(get("/api/state")["stepFrame"], frames - 1);

  // Looping: resumed from the end, it starts over instead of completing again.
  post("/api/playback", "loop=1&slowdown=1");
  post("/api/resume", "");
  EXPECT_TRUE(heard(waitForState([](const json& s) { return heard(s, "loop", "drift"); }), "loop",
                    "drift"));
  post("/api/playback", "loop=0");
  post("/api/pause", "");
}

TEST_F(StudioTest, ABrokenCatalogueIsReportedAndTheLoadedOneStays) {
  const auto generation = get("/api/state")["generation"].get<int>();
  const auto findingsFor = [&] {
    studio_->reloadIfChanged();
    return get("/api/state")["findings"];
  };

  const auto reportsErrorIn = [](const json& findings, const std::string& file) {
    bool error = false;
    for (const auto& f : findings) {
      EXPECT_EQ(f["file"], file) << f["text"];
      error = error || f["error"].get<bool>();
    }
    return error;
  };
  write("eyeanimations.xml", "<List><Animation Id=\"1\" Name=\"drift\"");
  EXPECT_TRUE(reportsErrorIn(findingsFor(), "eyeanimations.xml"));
  // Well-formed, but an animation without its required name.
  write("eyeanimations.xml", "<List><Animation Id=\"1\" Categories=\"MISC\"/></List>");
  EXPECT_TRUE(reportsErrorIn(findingsFor(), "eyeanimations.xml"));

  // The previous catalogue still plays.
  EXPECT_EQ(post("/api/play", "name=drift")->status, 200);
  EXPECT_EQ(get("/api/state")["generation"], generation);

  write("eyeanimations.xml", catalogue("drift_again"));
  EXPECT_FALSE(reportsErrorIn(findingsFor(), "eyeanimations.xml"));
  const json cat = get("/api/catalogue");
  ASSERT_EQ(cat["animations"].size(), 2u);
  EXPECT_EQ(cat["animations"][1]["name"], "drift_again");
  EXPECT_EQ(cat["animations"][1]["lengthMs"], cat["animations"][0]["lengthMs"]);
  EXPECT_EQ(cat["generation"], generation + 1);
  EXPECT_EQ(post("/api/play", "name=drift_again")->status, 200);
}

TEST_F(StudioTest, StrangersAreRefusedAndChangeNothing) {
  const std::string own = "127.0.0.1:" + std::to_string(port_);
  struct Case {
    std::string host, origin, token;
  };
  const Case cases[] = {{own, "", ""},
                        {own, "", "wrong"},
                        {own, "http://evil.example", token_},
                        {own, "http://127.0.0.1:1", token_},
                        {"evil.example:" + std::to_string(port_), "", token_}};
  const auto before = get("/api/state");
  for (const Case& c : cases) {
    httplib::Headers headers = {{"Host", c.host}, {"X-Studio-Token", c.token}};
    if (!c.origin.empty()) headers.emplace("Origin", c.origin);
    httplib::Client stranger("127.0.0.1", port_);
    auto res =
        stranger.Post("/api/play", headers, "name=drift", "application/x-www-form-urlencoded");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 403) << c.host << " " << c.origin << " " << c.token;
  }
  EXPECT_EQ(get("/api/state")["selection"], before["selection"]);
  httplib::Client page("127.0.0.1", port_);
  EXPECT_EQ(page.Get("/", {{"Origin", "http://localhost:" + std::to_string(port_)}})->status, 200);
}

TEST_F(StudioTest, SavingWritesOnlyItsAnimationAndKeepsABackup) {
  const fs::path file = dir_ / "eyeanimations.xml";
  write("eyeanimations.xml",
        "<?xml version=\"1.0\"?>\n<!-- kept -->\n<List>\n" + catalogue("").substr(6));
  studio_->reloadIfChanged();
  const std::string before = readFile(file);
  json draft = {{"name", "wave"},
                {"id", 7},
                {"categories", {"HAPPINESS", "IDLE"}},
                {"left", {eventJson(100, 2), eventJson(0, 0)}},
                {"right", {eventJson(200, 0)}}};
  auto res = post("/api/save", json{{"animation", draft}}.dump());
  ASSERT_EQ(res->status, 200) << res->body;
  EXPECT_EQ(readFile(fs::path(file) += ".bak"), before);
  const std::string saved = readFile(file);
  const size_t at =
      saved.find("  <Animation Id=\"7\" Name=\"wave\" Categories=\"HAPPINESS,IDLE\">");
  ASSERT_NE(at, std::string::npos) << saved;
  const size_t listEnd = before.rfind("</List>");
  EXPECT_EQ(saved.substr(0, listEnd), before.substr(0, listEnd));
  EXPECT_NE(saved.find(R"(TimeMs="100" Wait="40" ScaleX="1.5" ScaleY="555")"), std::string::npos);

  // The reload shows it, selected, timed as the player rounds it.
  const json timeline = get("/api/timeline");
  EXPECT_EQ(timeline["animation"], "wave");
  EXPECT_EQ(timeline["rounded"]["left"][0]["moveMs"], 120);
  EXPECT_EQ(timeline["draft"]["left"][0]["TopLidIndex"], 2);
  EXPECT_EQ(get("/api/catalogue")["animations"].back()["name"], "wave");

  // Renamed in place: the other animation and the comment stay as they were.
  draft["name"] = "wave_2";
  res = post("/api/save", json{{"replaces", "wave"}, {"animation", draft}}.dump());
  ASSERT_EQ(res->status, 200) << res->body;
  const std::string renamed = readFile(file);
  EXPECT_EQ(renamed.find("\"wave\""), std::string::npos);
  EXPECT_EQ(renamed.substr(0, listEnd), before.substr(0, listEnd));
  EXPECT_EQ(renamed.substr(at, 33), "  <Animation Id=\"7\" Name=\"wave_2\"");

  // A file the checker refuses is not written, and the answer says why.
  write("eyeanimations.xml", catalogue("drift"));  // the name twice
  draft["name"] = "wave_3";
  res = post("/api/save", json{{"animation", draft}}.dump());
  EXPECT_EQ(res->status, 422);
  EXPECT_FALSE(json::parse(res->body)["findings"].empty()) << res->body;
  EXPECT_EQ(readFile(file), catalogue("drift"));
}

}  // namespace
