// The `eyes` tool: its renderer against the real player, its catalogue checker on
// broken catalogues, and the program's command line.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <tuple>

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
  using Writes = std::vector<std::pair<uint8_t, std::vector<uint8_t>>>;
  std::shared_ptr<Writes> writes = std::make_shared<Writes>();
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
    const auto played = *writes;  // rendering draws through the panels too
    const auto frames = eyes::renderAnimation(name);
    ASSERT_TRUE(frames);
    EXPECT_EQ(int(frames->size()), eyes::animationFrameCount(*EyeControl::getAnimation(name)));
    Recorder::Writes rendered;
    for (const auto& frame : *frames)
      for (uint8_t panel = 0; panel < 2; ++panel)
        if (frame.drawn[panel]) rendered.emplace_back(panel, frame.panels[panel]);
    ASSERT_GT(played.size(), 2u);
    EXPECT_TRUE(rendered == played);
  }
}

// One event; `changes` is "Key value ..." over the defaults.
std::string event(const std::string& changes = "") {
  std::string text = R"(<Event X="100" Y="140" TimeMs="80" Wait="40" ScaleX="1" ScaleY="1" )"
                     R"(LidTopY="0" LidBotY="240" TopLidIndex="0" BotLidIndex="1" )"
                     R"(RotateAngle="0" Ellipse_H="0"/>)";
  std::istringstream pairs(changes);
  for (std::string key, value; pairs >> key >> value;) {
    const size_t at = text.find(" " + key + "=\"") + key.size() + 3;
    text.replace(at, text.find('"', at) - at, value);
  }
  return text;
}

// Line 2 the Animation, 3 its side, 4 its event; `more` starts on line 7.
std::string animation(const std::string& attributes, const std::string& side,
                      const std::string& event) {
  return "<Animation " + attributes + ">\n<AnimationSide Side=\"" + side + "\">\n" + event +
         "\n</AnimationSide>\n</Animation>\n";
}
std::string animations(const std::string& changes = "", const std::string& more = "",
                       const std::string& attributes = "Id=\"1\" Name=\"a\" Categories=\"IDLE\"",
                       const std::string& side = "Left") {
  return "<List>\n" + animation(attributes, side, event(changes)) + more + "</List>\n";
}

const std::string kIrisImage = "images/iris/classic_blue.png";

TEST(EyesLint, FindsEachProblemOnItsLine) {
  const std::string A = "eyeanimations.xml", I = "iris_type.xml", L = "eyelid.xml",
                    B = "background_type.xml", image = "left=\"" + kIrisImage + "\"";
  const auto second = [](const std::string& attributes, const std::string& event) {
    return animations("", animation(attributes + " Categories=\"IDLE\"", "Left", event));
  };
  // The Iris on line 3, `more` from line 5.
  const auto iris = [](const std::string& attributes, const std::string& more = "") {
    return "<List>\n<Iris_Type name=\"CLASSIC\">\n<Iris style=\"A\" " + attributes +
           "/>\n</Iris_Type>\n" + more + "</List>\n";
  };
  const std::string top = "path=\"images/eyelid/neutral_top.png\"";
  const auto lid = [&](const std::string& data) {  // a second lid on line 4
    return "<List>\n<Images>\n<Data name=\"t\" id=\"0\" " + top + "/>\n<Data name=\"b\" " + data +
           "/>\n</Images>\n<Animations/>\n</List>\n";
  };
  const std::vector<std::tuple<std::string, std::string, int, bool, std::string>> cases = {
      {L, "<List>\n<Images>\n</List>\n", 2, true, "does not parse"},
      {L, lid("id=\"1\""), 4, true, "has no path"},
      {A, second("Id=\"2\" Name=\"b\"", "<Event X=\"1\"/>"), 9, true, "has no Y"},
      {I, "<List>\n<Iris_Type name=\"classic\">\n</Iris_Type>\n</List>\n", 2, true,
       "unknown iris shape"},
      {B,
       "<List>\n<Background_Type name=\"COLOR\">\n<Background style=\"WHITE\"/>\n"
       "</Background_Type>\n<Background_Type name=\"IMAGES\">\n</Background_Type>\n</List>\n",
       5, true, "unknown background kind"},
      {A, animations("", "", "Id=\"1\" Name=\"a\" Categories=\"HAPPY\""), 2, false,
       "unknown category"},
      {A, animations("", "", "Id=\"1\" Name=\"a\"", "left"), 3, true, "neither Left nor Right"},
      {I, iris(image, "<Note/>\n"), 5, true, "read as one more <Iris_Type>"},
      {I, iris("left=\"none.png\""), 3, true, "does not exist"},
      {I, iris("left=\"iris_type.xml\""), 3, true, "Not a PNG"},
      {I, iris("ofsetX=\"3\" " + image), 3, false, "ofsetX is ignored; did you mean offsetX?"},
      {I, iris("offsetX=\"200\" " + image), 3, true, "outside -128..127"},
      {A, animations("TopLidIndex 7"), 4, true, "outside the eyelid catalogue"},
      {A, animations("TimeMs 100"), 4, false, "played as 120 ms"},
      {A, animations("X 010"), 4, false, "octal: read as 8"},
      {A, animations("", "", "Id=\"70000\" Name=\"a\""), 2, true, "read as 4464"},
      {A, second("Id=\"2\" Name=\"a\"", event()), 7, true, "never be played"},
      {A, second("Id=\"1\" Name=\"b\"", event()), 7, false, "Id 1 is already used on line 2"},
      {B, "<List>\n<Background_Type name=\"IMAGE\">\n</Background_Type>\n</List>\n", 1, true,
       "no COLOR group"},
      {L, lid("id=\"1\" path=\"" + kIrisImage + "\""), 4, true, "must be 240 wide"},
      {L, lid("id=\"0\" " + top), 4, true, "used twice"},
      {L, lid("id=\"2\" " + top), 4, false, "gap"},
  };
  for (const auto& [file, content, line, error, fragment] : cases) {
    SCOPED_TRACE(file + ": " + fragment);
    TempDir dir;  // a copy of the bundled set with one file broken
    fs::copy(EYE_ASSETS_DIR, dir.path(), fs::copy_options::recursive);
    dir.write(file, content);
    int found = 0;  // each problem is reported once, however often the file names it
    std::string all;
    for (const auto& f : eyes::lintCatalogues(dir.path().string())) {
      found += fs::path(f.file).filename() == file && f.line == line &&
               (f.severity == eyes::Severity::Error) == error &&
               f.message.find(fragment) != std::string::npos;
      all += eyes::formatFinding(f) + "\n";
    }
    EXPECT_EQ(found, 1) << all;
  }
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Total play time of an animated WebP: the durations of its "ANMF" frame chunks, or -1.
int webpDurationMs(const std::string& webp) {
  const auto little = [&](size_t at, int bytes) {
    int value = 0;
    while (bytes-- > 0) value = value << 8 | static_cast<uint8_t>(webp[at + bytes]);
    return value;
  };
  int total = 0;
  for (size_t at = 12; at + 24 <= webp.size(); at += 8 + ((little(at + 4, 4) + 1) & ~1))
    if (webp.compare(at, 4, "ANMF") == 0) total += little(at + 20, 3);
  return webp.compare(0, 4, "RIFF") == 0 ? total : -1;
}

TEST(EyesProgram, CommandLine) {
  TempDir out;  // the tool runs in here
  // The exit status and what the tool wrote (stdout and stderr).
  const auto run = [&](const std::string& arguments) {
    const int status =
        std::system(("cd " + out.str() + " && " EYES_TOOL " " + arguments + " >said 2>&1").c_str());
    return std::make_pair(WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                          readFile(out.path() / "said"));
  };
  for (const char* copy : {"broken", "odd"})
    fs::copy(EYE_ASSETS_DIR, out.path() / copy, fs::copy_options::recursive);
  out.write("broken/eyeanimations.xml", animations("TopLidIndex 9"));
  // Lint passes it with warnings; the start-up iris CLASSIC:BLUE is missing; odd/name has 3 frames.
  std::string irises = readFile(out.path() / "odd/iris_type.xml");
  out.write("odd/iris_type.xml",
            irises.replace(irises.find("style=\"BLUE\""), 12, "style=\"AZURE\""));
  out.write("odd/eyeanimations.xml", animations("",
                                                animation("Id=\"3\" Name=\"w\" Categories=\"IDLE\"",
                                                          "Left", event("TimeMs -80 ScaleY 0")),
                                                "Id=\"1\" Name=\"odd/name\" Categories=\"FEAR\""));
  out.write("a/frame_0099.png", "");
  const std::string bundled = EYE_ASSETS_DIR,
                    blink = "render --config " + bundled + " --animation blink";
  // The arguments, the exit status, a text said once ("!text": never said).
  const std::vector<std::tuple<std::string, int, std::string>> cases = {
      {"--help", 0, "Usage:"},
      {"--version", 0, "eyes "},
      {"frobnicate", 2, "A subcommand is required"},
      {"lint --config /nonexistent", 2, "no catalogue directory \"/nonexistent\""},
      {"lint " + bundled, 0, "!:"},  // not a single finding
      {"info " + bundled, 0, "Irises:"},
      {"render --config odd --animation no_such_one", 2, "no animation named \"no_such_one\""},
      {blink + " --idle 2", 2, "Exactly 1 option from [--animation,--idle]"},
      {blink + " --seed 4", 2, "--seed requires --idle"},
      {blink + " --iris CLASSIC", 2, "--iris wants SHAPE:STYLE"},
      {blink + " --iris GLOW:NOPE", 2, "the iris GLOW:NOPE is not in"},
      {blink + " --background COLOR:FOO", 2, "unknown colour \"FOO\""},
      {blink + " --out /nonexistent/dir/x.webp", 2, "cannot write /nonexistent/dir/x.webp"},
      {blink + " --out x.gif", 2, "use NAME.webp"},
      {blink + " --out x.webp --every 2", 2, "--every applies to contact sheets"},
      {blink + " --out blink.webp", 0, "blink: 6 frames"},
      {"lint broken", 1, "TopLidIndex 9 is outside"},
      {"info --config broken", 1, "have 1 error"},
      {"demo --config broken --out b", 1, "rendered, but the catalogues have errors"},
      {"lint odd", 0, "ScaleY 0 is not above 0"},
      {"render --config odd --animation odd/name --out a", 0, "odd/name: 3 frames"},
      {"render --config odd --animation w --out w.png", 0, "!error"},
      {"demo --config odd --out new/demo", 0,
       "eyes: warning: no iris CLASSIC:BLUE in odd; showing CLASSIC:BLACK\n"},
      {"render --config " + bundled + " --idle 2 --seed 9 --out idle", 0, "50 frames"},
  };
  for (const auto& [arguments, status, text] : cases) {
    const auto [code, said] = run(arguments);
    const bool never = text[0] == '!';
    const std::string what = text.substr(never);
    size_t times = 0;
    for (size_t at = said.find(what); at != std::string::npos; at = said.find(what, at + 1))
      ++times;
    EXPECT_EQ(code, status) << arguments << "\n" << said;
    EXPECT_EQ(times, never ? 0u : 1u) << arguments << "\n" << said;
  }
  EXPECT_EQ(webpDurationMs(readFile(out.path() / "blink.webp")), 240);  // 40 ms a frame
  // A frame directory takes only our own frames, and loses those of the last rendering.
  EXPECT_EQ(std::distance(fs::directory_iterator(out.path() / "idle"), {}), 50);
  EXPECT_EQ(std::distance(fs::directory_iterator(out.path() / "a"), {}), 3);
  out.write("a/notes.txt", "");
  EXPECT_EQ(run("render --config odd --animation w --out a").first, 2);
  // The demo: each animation as it plays, in a fresh directory, listed by category.
  const fs::path demo = out.path() / "new" / "demo";
  for (const char* file : {"w.png", "w.webp", "odd_name.png", "odd_name.webp"})
    EXPECT_TRUE(fs::is_regular_file(demo / file)) << file;
  const std::string html = readFile(demo / "index.html");
  for (const char* part : {"<h2>FEAR</h2>", "src=\"odd_name.webp\"", "src=\"w.webp\""})
    EXPECT_NE(html.find(part), std::string::npos) << part;
}

}  // namespace
