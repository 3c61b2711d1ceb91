// The `eyes` tool: its renderer against the real player, its catalogue checker on
// broken catalogues, and the program's exit statuses and demo output.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>

#include "EyeControl.h"
#include "EyeTestSupport.h"
#include "LcdControl.h"
#include "WorkerSupport.h"
#include "lint.h"
#include "render.h"

namespace fs = std::filesystem;
using eyetest::TempDir;

namespace {

// Every frame the player hands to the panels, in order.
struct Recorder : LcdOutput {
  std::shared_ptr<std::vector<std::pair<uint8_t, std::vector<uint8_t>>>> writes =
      std::make_shared<std::vector<std::pair<uint8_t, std::vector<uint8_t>>>>();
  std::string describe() const override { return "recorder"; }
  int open_() override { return 0; }
  int write_(uint8_t panel, const uint8_t* frame) override {
    writes->emplace_back(panel, std::vector<uint8_t>(frame, frame + LcdControl::kFrameBytes));
    return 0;
  }
};

TEST(EyesRenderer, FramesEqualThoseOfARealPlay) {
  ASSERT_EQ(eyes::bringUpEyes(EYE_ASSETS_DIR).problem, "");
  auto recorder = std::make_unique<Recorder>();
  auto writes = recorder->writes;
  ASSERT_EQ(LcdControl::setOutput(std::move(recorder)), 0);

  // A lid image change, an elliptic turn with scaling under an animated lid.
  for (const char* name : {"furious", "dizzy"}) {
    SCOPED_TRACE(name);
    eyes::restEyes();
    writes->clear();
    ASSERT_EQ(EyeControl::setAnimation(7, name), 0);
    ASSERT_TRUE(
        eyetest::waitUntil([] { return !EyeControl::isAnimating(); }, std::chrono::seconds(20)));
    const auto played = *writes;

    const auto frames = eyes::renderAnimation(name);
    ASSERT_TRUE(frames);
    EXPECT_EQ(static_cast<int>(frames->size()),
              eyes::animationFrameCount(*EyeControl::getAnimation(name)));
    for (uint8_t panel = 0; panel < 2; ++panel) {
      std::vector<std::vector<uint8_t>> expected, rendered;
      for (const auto& [p, frame] : played)
        if (p == panel) expected.push_back(frame);
      for (const auto& frame : *frames)
        if (frame.drawn[panel]) rendered.push_back(frame.panels[panel]);
      ASSERT_GT(expected.size(), 1u);
      ASSERT_EQ(rendered.size(), expected.size()) << "panel " << int(panel);
      for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_TRUE(rendered[i] == expected[i]) << "panel " << int(panel) << " frame " << i;
    }
  }
  EXPECT_FALSE(eyes::renderAnimation("no such animation"));
}

// A copy of the bundled set whose files can then be broken one at a time.
class CatalogueCopy : public TempDir {
 public:
  CatalogueCopy() { fs::copy(EYE_ASSETS_DIR, path(), fs::copy_options::recursive); }
};

std::string event(const std::string& override = "") {
  std::map<std::string, std::string> attributes = {
      {"X", "100"},         {"Y", "140"},         {"TimeMs", "80"},     {"Wait", "40"},
      {"ScaleX", "1"},      {"ScaleY", "1"},      {"LidTopY", "0"},     {"LidBotY", "240"},
      {"TopLidIndex", "0"}, {"BotLidIndex", "1"}, {"RotateAngle", "0"}, {"Ellipse_H", "0"}};
  std::istringstream pairs(override);
  std::string key, value;
  while (pairs >> key >> value) attributes[key] = value;
  std::string text = "<Event";
  for (const auto& [k, v] : attributes) text += " " + k + "=\"" + v + "\"";
  return text + "/>";
}

// Line 2 the Animation, 3 its side, 4 its event; a second animation starts on line 7.
std::string animations(const std::string& animation, const std::string& side = "Left",
                       const std::string& eventOverride = "", const std::string& more = "") {
  return "<List>\n<Animation " + animation + ">\n<AnimationSide Side=\"" + side + "\">\n" +
         event(eventOverride) + "\n</AnimationSide>\n</Animation>\n" + more + "</List>\n";
}

const std::string kAnimation = "Id=\"1\" Name=\"a\" Categories=\"IDLE\"";
const std::string kIrisImage = "images/iris/classic_blue.png";

struct BrokenCase {
  std::string file;
  std::string content;
  int line;
  eyes::Severity severity;
  std::string fragment;
  std::function<void(const fs::path&)> prepare = nullptr;  // breaks an image of the copy
};

// Keeps the first half of a file, as an interrupted copy would.
void cutInHalf(const fs::path& file) {
  fs::resize_file(file, fs::file_size(file) / 2);
}

TEST(EyesLint, FindsEachProblemOnItsLine) {
  using eyes::Severity;
  const Severity E = Severity::Error, W = Severity::Warning;
  const std::string iris = "<List>\n<Iris_Type name=\"CLASSIC\">\n<Iris style=\"A\" left=\"" +
                           kIrisImage + "\"/>\n</Iris_Type>\n";
  const std::string colors =
      "<List>\n<Background_Type name=\"COLOR\">\n<Background style=\"WHITE\"/>\n"
      "</Background_Type>\n";
  const std::string lids =
      "<List>\n<Images>\n<Data name=\"t\" id=\"0\" path=\"images/eyelid/neutral_top.png\"/>\n";
  const std::vector<BrokenCase> cases = {
      {"eyelid.xml", "<List>\n<Images>\n</List>\n", 2, E, "does not parse"},
      {"iris_type.xml", "<List>\n<Iris_Type>\n</Iris_Type>\n</List>\n", 2, E, "has no name"},
      {"eyelid.xml", lids + "<Data name=\"b\" id=\"1\"/>\n</Images>\n<Animations/>\n</List>\n", 4,
       E, "has no path"},
      {"eyeanimations.xml", animations("Id=\"1\" Categories=\"IDLE\""), 2, E, "has no Name"},
      {"eyeanimations.xml",
       animations(kAnimation, "Left", "",
                  "<Animation Id=\"2\" Name=\"b\" Categories=\"IDLE\">\n<AnimationSide "
                  "Side=\"Left\">\n<Event X=\"1\"/>\n</AnimationSide>\n</Animation>\n"),
       9, E, "has no Y"},
      {"iris_type.xml", "<List>\n<Iris_Type name=\"classic\">\n</Iris_Type>\n</List>\n", 2, E,
       "unknown iris shape"},
      {"background_type.xml",
       colors + "<Background_Type name=\"IMAGES\">\n</Background_Type>\n</List>\n", 5, E,
       "unknown background kind"},
      {"eyeanimations.xml", animations("Id=\"1\" Name=\"a\" Categories=\"HAPPY\""), 2, W,
       "unknown category"},
      {"eyeanimations.xml", animations("Id=\"1\" Name=\"a\" Categories=\"IDLE, MISC\""), 2, W,
       "space"},
      {"eyeanimations.xml", animations("Id=\"1\" Name=\"a\" Categories=\"EYEANIMATION_IDLE\""), 2,
       W, "prefix"},
      {"eyeanimations.xml", animations(kAnimation, "left"), 3, E, "neither Left nor Right"},
      {"iris_type.xml", iris + "<Note/>\n</List>\n", 5, E, "read as one more <Iris_Type>"},
      {"iris_type.xml",
       "<List>\n<Iris_Type name=\"CLASSIC\">\n<Iris style=\"A\" left=\"none.png\"/>\n"
       "</Iris_Type>\n</List>\n",
       3, E, "does not exist"},
      {"iris_type.xml",
       "<List>\n<Iris_Type name=\"CLASSIC\">\n<Iris style=\"A\" left=\"iris_type.xml\" "
       "right=\"iris_type.xml\"/>\n</Iris_Type>\n</List>\n",
       3, E, "Not a PNG"},
      {"iris_type.xml", iris + "</List>\n", 3, E, "cut short",
       [](const fs::path& d) { cutInHalf(d / kIrisImage); }},
      {"iris_type.xml",
       "<List>\n<Iris_Type name=\"CLASSIC\">\n<Iris style=\"A\" left=\"big.png\"/>\n"
       "</Iris_Type>\n</List>\n",
       3, E, "image too large",
       [](const fs::path& d) {
         fs::copy_file(EYE_TEST_SOURCE_DIR "/fuzz/regressions/png/header-4097x4096.png",
                       d / "big.png");
       }},
      {"eyelid.xml", lids + "</Images>\n<Animations/>\n</List>\n", 3, E, "cut short",
       [](const fs::path& d) { cutInHalf(d / "images/eyelid/neutral_top.png"); }},
      {"iris_type.xml",
       "<List>\n<Iris_Type name=\"CLASSIC\">\n<Iris style=\"A\" ofsetX=\"3\" left=\"" + kIrisImage +
           "\"/>\n</Iris_Type>\n</List>\n",
       3, W, "ofsetX is ignored; did you mean offsetX?"},
      {"eyeanimations.xml", animations(kAnimation, "Left", "TimeMs -80"), 4, W, "negative"},
      {"eyeanimations.xml", animations(kAnimation, "Left", "ScaleY 0"), 4, W, "not above 0"},
      {"eyeanimations.xml", animations(kAnimation, "Left", "X 5000"), 4, W, "far off"},
      {"background_type.xml",
       colors + "<Background_Type name=\"IMAGE\">\n<Background style=\"B\" left=\"" + kIrisImage +
           "\"/>\n</Background_Type>\n</List>\n",
       6, E, "must be 240 x 240"},
      {"eyelid.xml",
       lids + "<Data name=\"b\" id=\"1\" path=\"" + kIrisImage +
           "\"/>\n</Images>\n<Animations/>\n</List>\n",
       4, E, "must be 240 wide"},
      {"eyelid.xml",
       lids + "<Data name=\"b\" id=\"0\" path=\"images/eyelid/neutral_top.png\"/>\n</Images>\n"
              "<Animations/>\n</List>\n",
       4, E, "used twice"},
      {"eyelid.xml",
       lids + "</Images>\n<Animations>\n<Data name=\"s\" id=\"2\" "
              "path=\"images/eyelid/ripple_top_sheet.png\""
              " w=\"240\" h=\"240\"/>\n</Animations>\n</List>\n",
       6, W, "gap"},
      {"eyeanimations.xml", animations(kAnimation, "Left", "TopLidIndex 7"), 4, E,
       "outside the eyelid catalogue"},
      {"eyeanimations.xml",
       animations(kAnimation, "Left", "", "<Animation Id=\"2\" Name=\"a\" Categories=\"IDLE\"/>\n"),
       7, E, "never be played"},
      {"eyeanimations.xml",
       animations(kAnimation, "Left", "", "<Animation Id=\"1\" Name=\"b\" Categories=\"IDLE\"/>\n"),
       7, W, "Id 1 is already used on line 2"},
      {"eyeanimations.xml", animations(kAnimation, "Left", "TimeMs 100"), 4, W, "played as 120 ms"},
      {"eyeanimations.xml", animations(kAnimation, "Left", "X 010"), 4, W, "octal: read as 8"},
      {"eyeanimations.xml", animations(kAnimation, "Left", "Y 40000"), 4, E, "read as -25536"},
      {"eyeanimations.xml", animations("Id=\"70000\" Name=\"a\" Categories=\"IDLE\""), 2, E,
       "read as 4464"},
      {"iris_type.xml",
       "<List>\n<Iris_Type name=\"CLASSIC\">\n<Iris style=\"A\" offsetX=\"200\" left=\"" +
           kIrisImage + "\"/>\n</Iris_Type>\n</List>\n",
       3, E, "outside -128..127"},
      {"background_type.xml",
       "<List>\n<Background_Type name=\"IMAGE\">\n</Background_Type>\n</List>\n", 1, E,
       "no COLOR group"},
  };
  for (const BrokenCase& c : cases) {
    SCOPED_TRACE(c.file + ": " + c.fragment);
    CatalogueCopy dir;
    dir.write(c.file, c.content);
    if (c.prepare) c.prepare(dir.path());
    const auto findings = eyes::lintCatalogues(dir.path().string());
    int found = 0;  // each problem is reported once, however often the file names it
    for (const auto& f : findings)
      found += fs::path(f.file).filename() == c.file && f.line == c.line &&
               f.severity == c.severity && f.message.find(c.fragment) != std::string::npos;
    std::string all;
    for (const auto& f : findings) all += eyes::formatFinding(f) + "\n";
    EXPECT_EQ(found, 1) << all;
  }
}

TEST(EyesLint, BundledSetIsClean) {
  std::string all;
  for (const auto& f : eyes::lintCatalogues(EYE_ASSETS_DIR)) all += eyes::formatFinding(f) + "\n";
  EXPECT_EQ(all, "");
}

// The tool's exit status; what it wrote on stderr goes to `errors` when given.
int run(const std::string& arguments, std::string* errors = nullptr) {
  TempDir scratch;
  const std::string errorFile = (scratch.path() / "stderr").string();
  const int status = std::system(
      (std::string(EYES_TOOL) + " " + arguments + " >/dev/null 2>" + errorFile).c_str());
  if (errors) {
    std::ifstream in(errorFile);
    errors->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(EyesProgram, ExitStatuses) {
  const std::string bundled = EYE_ASSETS_DIR;
  EXPECT_EQ(run("--help"), 0);
  for (const char* command : {"render", "demo", "lint", "info"})
    EXPECT_EQ(run(std::string(command) + " --help"), 0);
  EXPECT_EQ(run(""), 2);
  EXPECT_EQ(run("frobnicate"), 2);
  EXPECT_EQ(run("--version"), 0);
  EXPECT_EQ(run("lint --config /nonexistent"), 2);
  EXPECT_EQ(run("lint /nonexistent"), 2);
  EXPECT_EQ(run("lint " + bundled + " --config " + bundled), 2);
  EXPECT_EQ(run("lint " + bundled), 0);
  EXPECT_EQ(run("info " + bundled), 0);
  EXPECT_EQ(run("render --config " + bundled + " --animation no_such_one"), 2);
  EXPECT_EQ(run("render --config " + bundled + " --animation blink --iris CLASSIC"), 2);
  EXPECT_EQ(run("render --config " + bundled + " --animation blink --iris GLOW:NOPE"), 2);
  EXPECT_EQ(run("render --config " + bundled + " --animation blink --out /nonexistent/dir/x.webp"),
            2);

  CatalogueCopy broken;
  broken.write("eyeanimations.xml", animations(kAnimation, "Right", "TimeMs 100 TopLidIndex 9"));
  EXPECT_EQ(run("lint " + broken.path().string()), 1);
  TempDir out;
  EXPECT_EQ(run("info --config " + broken.path().string()), 1);
  EXPECT_EQ(run("demo --config " + broken.path().string() + " --out " + out.str()), 1);
  const std::string blink = "render --config " + bundled + " --animation blink --out ";
  for (const char* refused : {"x.gif", "x.webp --every 2", "x.webp --background COLOR:FOO"})
    EXPECT_EQ(run(blink + out.str() + refused), 2) << refused;
  // A frame directory takes only our own frames, and loses those of the last rendering.
  out.write("frames/frame_0099.png", "");
  EXPECT_EQ(run(blink + out.str() + "frames"), 0);
  EXPECT_FALSE(fs::exists(out.path() / "frames/frame_0099.png"));
  out.write("frames/notes.txt", "");
  EXPECT_EQ(run(blink + out.str() + "frames"), 2);
  broken.write("eyeanimations.xml", animations(kAnimation, "Right", "TimeMs 100"));
  EXPECT_EQ(run("lint " + broken.path().string()), 0) << "warnings alone pass";
}

// A catalogue lint passes renders as it is, the start-up default or not: no library
// error on the way, and the fallback said once.
TEST(EyesProgram, WhatLintPassesRendersWithoutALibraryError) {
  CatalogueCopy withoutDefault, withWarnings;
  std::ifstream in(withoutDefault.path() / "iris_type.xml");
  std::string irises((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  irises.replace(irises.find("style=\"BLUE\""), 12, "style=\"AZURE\"");
  withoutDefault.write("iris_type.xml", irises);
  withoutDefault.write("eyeanimations.xml", animations(kAnimation));
  withWarnings.write("eyeanimations.xml", animations(kAnimation, "Left", "TimeMs -80 ScaleY 0"));
  TempDir out;
  for (const CatalogueCopy* dir : {&withoutDefault, &withWarnings}) {
    const std::string config = " --config " + dir->path().string();
    std::string errors;
    ASSERT_EQ(run("lint" + config, &errors), 0) << errors;
    const std::string sheet = (out.path() / "sheet.png").string();
    EXPECT_EQ(run("render" + config + " --animation a --out " + sheet, &errors), 0);
    EXPECT_EQ(errors.find("error"), std::string::npos) << errors;
  }
  std::string errors;
  EXPECT_EQ(run("demo --config " + withoutDefault.path().string() + " --out " +
                    (out.path() / "demo").string(),
                &errors),
            0);
  EXPECT_EQ(errors, "eyes: warning: no iris CLASSIC:BLUE in " + withoutDefault.path().string() +
                        "; showing CLASSIC:BLACK\n");
}

// Sum of the frame durations of an animated WebP (RIFF chunks "ANMF").
int webpDurationMs(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (bytes.size() < 12 || bytes.compare(0, 4, "RIFF") != 0 || bytes.compare(8, 4, "WEBP") != 0)
    return -1;
  auto byte = [&](size_t i) { return static_cast<int>(static_cast<unsigned char>(bytes[i])); };
  int total = 0;
  for (size_t at = 12; at + 8 <= bytes.size();) {
    const size_t size = byte(at + 4) | byte(at + 5) << 8 | byte(at + 6) << 16 | byte(at + 7) << 24;
    if (bytes.compare(at, 4, "ANMF") == 0)
      total += byte(at + 20) | byte(at + 21) << 8 | byte(at + 22) << 16;
    at += 8 + size + (size & 1);
  }
  return total;
}

TEST(EyesProgram, DemoWritesEveryAnimationIntoAFreshDirectory) {
  CatalogueCopy config;
  // 3 frames (80 ms move, 40 ms hold) and 5 frames on the longer track.
  config.write(
      "eyeanimations.xml",
      animations(kAnimation, "Left", "X 60",
                 "<Animation Id=\"2\" Name=\"odd/name\" Categories=\"FEAR\">\n<AnimationSide "
                 "Side=\"Right\">\n" +
                     event("TimeMs 120 Wait 80 X 60") + "\n</AnimationSide>\n</Animation>\n"));
  TempDir out;
  const std::string demoDir = (out.path() / "new" / "demo").string();
  ASSERT_EQ(run("demo --config " + config.path().string() + " --out " + demoDir), 0);
  for (const char* file : {"a.webp", "a.png", "odd_name.webp", "odd_name.png", "index.html"})
    EXPECT_TRUE(fs::is_regular_file(fs::path(demoDir) / file)) << file;
  EXPECT_EQ(webpDurationMs(demoDir + "/a.webp"), 120);
  EXPECT_EQ(webpDurationMs(demoDir + "/odd_name.webp"), 200);
  std::ifstream index(demoDir + "/index.html");
  const std::string html((std::istreambuf_iterator<char>(index)), std::istreambuf_iterator<char>());
  EXPECT_NE(html.find("<h2>FEAR</h2>"), std::string::npos);
  EXPECT_NE(html.find("src=\"odd_name.webp\""), std::string::npos);
  EXPECT_NE(html.find("src=\"a.webp\""), std::string::npos);
}

}  // namespace
