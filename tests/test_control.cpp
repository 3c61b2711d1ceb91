// The facade: catalogue loading, start-up, image lookup and appearance commands,
// checked through the frames the panels receive.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeTestSupport.h"
#include "Helper.h"
#include "LcdControl.h"
#include "WorkerSupport.h"

namespace {

namespace fs = std::filesystem;
using EC = EyeControl;
using Rgb = std::array<uint8_t, 3>;
using Pair = std::pair<long, long>;
constexpr Rgb kWhite{255, 255, 255}, kRed{255, 0, 0}, kGreen{0, 255, 0};
constexpr unsigned short kFirstLid = 0;  // not a literal, so never taken for a null image

// In load order: 20 x 20 irises (red left, green right), 10 x 10 magenta, blue and cyan
// backgrounds, two black lids (10 and 12 rows) with a yellow fill.
const std::pair<const char*, const char*> kFiles[] = {
    {"eyeanimations.xml", R"(<List><Animation Id="1" Name="look" Categories="IDLE"/></List>)"},
    {"background_type.xml", R"(<List>
<Background_Type name="COLOR"><Background style="WHITE"/></Background_Type>
<Background_Type name="IMAGE"><Background style="SKY" left="bg/l.png" right="bg/r.png"/>
</Background_Type></List>)"},
    {"eyelid.xml", R"(<List><Images>
<Data name="half" id="1" path="lids/b.png" r="255" g="255" b="0" a="255"/>
<Data name="open" id="0" path="lids/a.png" r="255" g="255" b="0" a="255"/></Images></List>)"},
    {"iris_type.xml", R"(<List><Iris_Type name="CLASSIC">
<Iris style="BLUE" left="iris/l.png" right="iris/r.png" offsetX="3" offsetY="-2"/>
<Iris style="RED" left="iris/small.png"/></Iris_Type>
<Iris_Type name="MODERN"><Iris style="STAR" left="iris/small.png" right="iris/l.png"/></Iris_Type>
<Iris_Type name="CLASSIC"><Iris style="LATE" left="iris/small.png"/></Iris_Type></List>)"}};

void writeCatalogue(const fs::path& dir) {
  for (const char* sub : {"iris", "bg", "lids"}) fs::create_directories(dir / sub);
  for (const auto& [name, text] : kFiles) std::ofstream(dir / name) << text;
  const struct {
    const char* name;
    int w, h;
    Rgb rgb;
  } images[] = {{"iris/l.png", 20, 20, kRed},
                {"iris/r.png", 20, 20, kGreen},
                {"iris/small.png", 10, 10, {255, 0, 255}},
                {"bg/l.png", 240, 240, {0, 0, 255}},
                {"bg/r.png", 240, 240, {0, 255, 255}},
                {"lids/a.png", 240, 10, {}},
                {"lids/b.png", 240, 12, {}}};
  for (const auto& i : images) {
    VContent image;
    image.AddFrame("", i.w, i.h, true, false, i.rgb[0], i.rgb[1], i.rgb[2], 255);
    VContent::writePng((dir / i.name).string(), i.w, i.h, image.frames[0].data(), true);
  }
}

Rgb pixel(uint8_t panel, int x, int y) {
  const auto frame = LcdControl::lastFrame(panel);
  if (frame.size() != LcdControl::kFrameBytes) return {1, 2, 3};
  const auto rgb = LcdControl::unpack12Bit(frame.data());
  const size_t i = (static_cast<size_t>(y) * 240 + static_cast<size_t>(x)) * 3;
  return {rgb[i], rgb[i + 1], rgb[i + 2]};
}

Pair frames() {
  return {LcdControl::framesWritten(0), LcdControl::framesWritten(1)};
}

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    eyetest::resetEyeControl();
    writeCatalogue(dir.path());
  }
  void TearDown() override { eyetest::resetEyeControl(); }
  int8_t start(const char* iris = "BLUE", EyeContentType kind = EyeContentType::COLOR,
               const char* background = "WHITE") {
    return EC::initFrom(dir.path().string(), IrisShape::CLASSIC, iris, kind, background);
  }
  eyetest::TempDir dir;
  eyetest::LogCapture log;
};

// Each catalogue is replaced as soon as its file is read: a missing file stops the
// loading and leaves its catalogue and the later ones as they were.
TEST_F(ControlTest, LoadingStopsAtTheFirstMissingFileAndKeepsWhatWasRead) {
  std::ofstream(dir.path() / kFiles[1].first) << "<List><Background_Type name=";
  const size_t read[] = {1, 0, 2, 3};  // the background file does not parse
  for (size_t missing = 0; missing <= 4; ++missing) {
    EC::eye_animations.resize(5);
    EC::background_types.resize(5);
    EC::lid_images.resize(5);
    EC::iris_types.resize(5);
    const fs::path file = dir.path() / kFiles[missing % 4].first;
    if (missing < 4) fs::rename(file, dir.path() / "away");
    log.clear();
    EXPECT_EQ(EC::loadEyeFilesFrom(dir.path().string()), missing < 4 ? -1 : 0);
    const size_t sizes[] = {EC::eye_animations.size(), EC::background_types.size(),
                            EC::lid_images.size(), EC::iris_types.size()};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(sizes[i], i < missing ? read[i] : 5) << missing;
    if (missing == 4) break;
    EXPECT_EQ(log.count("File:" + dir.str() + kFiles[missing].first + " NOT EXIST !"), 1u);
    fs::rename(dir.path() / "away", file);
  }
  EXPECT_EQ(log.count("XML parse failed!"), 1u);
  EXPECT_EQ(EC::lid_images[0].content.width, 240);  // relative to the directory
}

TEST_F(ControlTest, InitDrawsTheDefaultsOnceUnlessItFails) {
  fs::rename(dir.path() / "eyelid.xml", dir.path() / "away");
  EXPECT_EQ(start(), -1);
  fs::rename(dir.path() / "away", dir.path() / "eyelid.xml");
  const char* previous = std::getenv("EYE_LCD");
  const std::string saved = previous != nullptr ? previous : "memory";
  setenv("EYE_LCD", "png:/proc/nonexistent/x", 1);
  const int8_t failed = start();
  setenv("EYE_LCD", saved.c_str(), 1);
  EXPECT_EQ(failed, -2);
  EXPECT_FALSE(EC::isActive());
  EXPECT_EQ(EC::iris_types.size(), 3u);  // the catalogues stay loaded
  EXPECT_EQ(frames(), Pair(0, 0));

  log.clear();
  ASSERT_EQ(start(), 0);
  EXPECT_TRUE(EC::isActive() && !EC::isAnimating());
  EXPECT_TRUE(log.errors().empty());
  // Offsets (3, -2) mirror: the 20 x 20 left iris centred at (97, 138), the right one
  // at (143, 138); lids attached but open.
  const struct {
    uint8_t panel;
    int x, y;
    Rgb colour;
  } samples[] = {{0, 87, 128, kRed},
                 {0, 106, 147, kRed},
                 {0, 107, 147, kWhite},
                 {1, 133, 128, kGreen},
                 {1, 132, 128, kWhite}};
  for (const auto& s : samples) EXPECT_EQ(pixel(s.panel, s.x, s.y), s.colour) << s.x << "," << s.y;
  const Eyes& r = EC::Right_Eye;
  EXPECT_EQ(Pair(r.getIrisX(), r.getIrisY()), Pair(140, 140));
  EXPECT_EQ(r.topLid, &EC::lid_images[0].content);
  EXPECT_EQ(r.bottomLidColor, EC::lid_images[0].color);
  EXPECT_EQ(r.lidImages, &EC::lid_images);
  EXPECT_EQ(start(), 1);
  EXPECT_EQ(EC::initFrom("/nonexistent", IrisShape::CLASSIC, "", EyeContentType::COLOR, ""), 1);
  EXPECT_EQ(frames(), Pair(1, 1));
}

// Without its defaults init goes on: no iris, and the background from before.
TEST_F(ControlTest, MissingDefaultsAreReportedAndReloadFromTheSettings) {
  EC::FillBackgroundColor(EC::default_background, {0, 255, 0}, true);
  ASSERT_EQ(start("PINK", EyeContentType::IMAGE, "NONE"), 0);
  EXPECT_EQ(log.errors(), (std::vector<std::string>{"Eye Control default iris set failed!",
                                                    "Eye Control default background set failed!"}));
  EXPECT_EQ(EC::Left_Eye.iris, &EC::default_iris.left);
  EXPECT_EQ(pixel(0, 100, 140), kGreen);
  EXPECT_EQ(pixel(1, 140, 140), kGreen);

  LcdControl::resetCounters();
  Settings& settings = Helper::getSettings();
  settings.defaultIrisStyle = "MISSING";
  settings.defaultBackgroundType = static_cast<uint8_t>(EyeContentType::IMAGE);
  settings.defaultBackgroundStyle = "WHITE";
  EXPECT_EQ(EC::loadDefaultIris(), -1);
  EXPECT_EQ(EC::loadDefaultBackground(), -1);
  EXPECT_EQ(frames(), Pair(0, 0));
  settings.defaultIrisStyle = "BLUE";
  settings.defaultBackgroundStyle = "SKY";
  EXPECT_EQ(EC::loadDefaultIris(), 0);
  EXPECT_EQ(EC::loadDefaultBackground(), 0);
  EXPECT_EQ(EC::Left_Eye.offsetX, 3);
  EXPECT_EQ(frames(), Pair(2, 2));
  EXPECT_EQ(pixel(0, 0, 0), (Rgb{0, 0, 255}));
  EXPECT_EQ(pixel(1, 0, 0), (Rgb{0, 255, 255}));
  EXPECT_EQ(log.messages(spdlog::level::debug),
            (std::vector<std::string>{"Default iris loaded", "Default background loaded"}));
}

TEST_F(ControlTest, LookupTakesTheFirstGroupOfAKindAndTheFirstExactStyle) {
  ASSERT_EQ(EC::loadEyeFilesFrom(dir.str()), 0);
  EyePart part;
  part.offsetX = 9;
  EXPECT_EQ(EC::getIris(IrisShape::GLOW, "BLUE", part), -2);
  EXPECT_EQ(EC::getIris(IrisShape::CLASSIC, "blue", part), -1);
  EXPECT_EQ(EC::getIris(IrisShape::CLASSIC, "LATE", part), -1);
  EXPECT_EQ(EC::getBackground(EyeContentType::IMAGE, "WHITE", part), -1);
  EXPECT_EQ(part.offsetX, 9);
  EXPECT_TRUE(part.left.frames.empty());

  ASSERT_EQ(EC::getIris(IrisShape::CLASSIC, "BLUE", part), 0);
  EXPECT_EQ(Pair(part.offsetX, part.offsetY), Pair(3, -2));
  EXPECT_EQ(Pair(part.left.width, part.left.bytesPerPixel), Pair(20, 4));
  EXPECT_EQ(part.left.frames[0][0], 15);  // red, 12-bit
  ASSERT_EQ(EC::getIris(IrisShape::CLASSIC, "RED", part), 0);
  EXPECT_EQ(Pair(part.offsetX, part.right.width), Pair(0, 10));
  EXPECT_STREQ(EC::getIrisPath(IrisShape::CLASSIC, "BLUE", true), "iris/l.png");
  EXPECT_STREQ(EC::getIrisPath(IrisShape::CLASSIC, "BLUE", false), "iris/r.png");
  EXPECT_EQ(EC::getIrisPath(IrisShape::CLASSIC, "LATE", true), nullptr);
  EXPECT_EQ(EC::getIrisPath(IrisShape::MATCH, "BLUE", true), nullptr);

  ASSERT_EQ(EC::getBackground(EyeContentType::IMAGE, "SKY", part), 0);
  EXPECT_EQ(Pair(part.left.bytesPerPixel, part.right.frames[0][1]), Pair(3, 15));
  ASSERT_EQ(EC::getBackground(EyeContentType::COLOR, "RED", part), 0);
  EXPECT_EQ(Pair(part.right.frames[0][0], part.right.frames[0][1]), Pair(15, 0));
  EC::background_types.erase(EC::background_types.begin());  // no COLOR group
  EyePart untouched;
  EXPECT_EQ(EC::getBackground(EyeContentType::COLOR, "WHITE", untouched), -2);
  EXPECT_TRUE(untouched.left.frames.empty());
}

// A filled image has its first frame repainted, an empty one gets a frame; both are
// painted with the left image's pixel count, so a larger right one only in part.
TEST(FillBackgroundColor, PaintsFirstFramesWithTheLeftImagesPixelCount) {
  const Color pink{255, 192, 203};
  EyePart half;
  half.left.AddFrame("", 4, 2, false, false, 1, 2, 3, 255);
  half.left.AddFrame("", 4, 2, false, false, 1, 2, 3, 255);
  EC::FillBackgroundColor(half, pink, true);
  EXPECT_EQ((std::vector<int>{half.left.frames[0][23], half.left.frames[1][0], half.right.width,
                              half.right.frames.at(0)[57599 * 3 + 1]}),
            (std::vector<int>{12, 1, 240, 12}));
  EyePart uneven;
  uneven.left.AddFrame("", 2, 2, false, false, 0, 0, 0, 255);
  uneven.right.AddFrame("", 3, 2, false, false, 0, 0, 0, 255);
  EC::FillBackgroundColor(uneven, pink, false);
  EXPECT_EQ((std::vector<int>{uneven.left.frames[0][9], uneven.right.frames[0][11],
                              uneven.right.frames[0][12]}),
            (std::vector<int>{255, 203, 0}));
}

// --- appearance commands ---

class CommandTest : public ControlTest {
 protected:
  void SetUp() override {
    ControlTest::SetUp();
    ASSERT_EQ(start(), 0);
    LcdControl::resetCounters();
  }
  // Back to the state init leaves, without drawing.
  static void rewire() {
    ASSERT_EQ(EC::getIris(IrisShape::CLASSIC, "BLUE", EC::default_iris), 0);
    EC::default_background = EyePart{};
    EC::FillBackgroundColor(EC::default_background, {255, 255, 255}, true);
    eyetest::wireEye(EC::Left_Eye, 100, 140);
    eyetest::wireEye(EC::Right_Eye, 140, 140);
    EC::Left_Eye.offsetX = EC::Right_Eye.offsetX = 3;
    LcdControl::resetCounters();
  }
};

TEST_F(CommandTest, EverySideTakingCommandAddressesTheNamedEyesOnly) {
  VContent image, lid, backgroundImage;
  backgroundImage.AddFrame("", 240, 240, false, false, 0, 0, 0, 255);
  EyePart part, backgroundPart;
  part.left.AddFrame("", 7, 7, true, true, 0, 0, 0, 255);
  part.right.AddFrame("", 9, 9, true, true, 0, 0, 0, 255);
  backgroundPart.left.AddFrame("", 240, 240, false, false, 1, 0, 0, 255);
  backgroundPart.right.AddFrame("", 240, 240, false, false, 2, 0, 0, 255);
  const EyeLidPart* lids = EC::lid_images.data();
  const std::pair<std::function<int(EyeSide)>, std::function<bool(const Eyes&)>> cases[] = {
      {[&](EyeSide s) { return EC::setIris(&image, s); },
       [&](const Eyes& e) { return e.iris == &image; }},
      {[&](EyeSide s) { return EC::setIris(part, s); },
       [&](const Eyes& e) { return e.iris->width == (e.isLeft ? 7 : 9); }},
      {[&](EyeSide s) { return EC::setIris(IrisShape::CLASSIC, ColorCode::RED, s); },
       [&](const Eyes& e) { return e.offsetX == 0; }},
      {[&](EyeSide s) { return EC::setBackground(&backgroundImage, s); },
       [&](const Eyes& e) { return e.background == &backgroundImage; }},
      {[&](EyeSide s) { return EC::setBackground(backgroundPart, s); },
       [&](const Eyes& e) { return e.background->frames[0][0] == (e.isLeft ? 1 : 2); }},
      {[&](EyeSide s) { return EC::setLid(&lid, true, s); },
       [&](const Eyes& e) { return e.topLid == &lid && e.bottomLid != &lid; }},
      {[&](EyeSide s) { return EC::setLid(&lid, false, s); },
       [&](const Eyes& e) { return e.bottomLid == &lid && e.topLid != &lid; }},
      // Lid indexes switch the images but keep the fill colours.
      {[&](EyeSide s) { return EC::setLid(1, kFirstLid, s); },
       [&](const Eyes& e) {
         return e.topLid == &lids[1].content && e.topLidIndex == 1 &&
                e.bottomLid == &lids[0].content && e.bottomLidIndex == 0 &&
                e.topLidColor == lids[0].color;
       }},
      {[&](EyeSide s) { return EC::setPosition(s, 10, -20, 1, 1, 0, 240); },
       [&](const Eyes& e) { return e.getIrisX() == 10 && e.getIrisY() == -20; }},
  };
  for (size_t c = 0; c < std::size(cases); ++c) {
    for (uint8_t value : {0, 1, 2, 3}) {
      rewire();
      const bool left = value < 2, right = value == 0 || value == 2;
      SCOPED_TRACE("case " + std::to_string(c) + " side " + std::to_string(value));
      EXPECT_EQ(cases[c].first(static_cast<EyeSide>(value)), 0);
      EXPECT_EQ(frames(), Pair(left, right));
      EXPECT_EQ(cases[c].second(EC::Left_Eye), left);
      EXPECT_EQ(cases[c].second(EC::Right_Eye), right);
    }
  }
}

TEST_F(CommandTest, RefusedCommandsDrawNothingAndTheLimitsAreTaken) {
  EXPECT_EQ(EC::setIris(static_cast<VContent*>(nullptr), EyeSide::BOTH), -1);
  EXPECT_EQ(EC::setBackground(static_cast<VContent*>(nullptr), EyeSide::BOTH), -1);
  EXPECT_EQ(EC::setLid(nullptr, true, EyeSide::LEFT), -1);
  EXPECT_EQ(EC::setLid(2, kFirstLid, EyeSide::BOTH), -1);
  EXPECT_EQ(EC::setLid(kFirstLid, 2, EyeSide::BOTH), -1);
  EXPECT_EQ(EC::setPosition(EyeSide::BOTH, 251, 0, 1, 1, 0, 240), -1);
  EXPECT_EQ(EC::setPosition(EyeSide::BOTH, 0, -251, 1, 1, 0, 240), -1);
  EXPECT_EQ(EC::setPosition(EyeSide::BOTH, -32768, 0, 1, 1, 0, 240), -1);
  EXPECT_EQ(EC::setIris(IrisShape::CLASSIC, ColorCode::PINK, EyeSide::BOTH), -1);
  EXPECT_EQ(EC::setIris(IrisShape::SPACE, ColorCode::BLUE, EyeSide::BOTH), -2);
  EXPECT_EQ(EC::setBackground(EyeContentType::IMAGE, ColorCode::WHITE), -1);
  EXPECT_EQ(frames(), Pair(0, 0));
  EXPECT_EQ(EC::Left_Eye.topLid, &EC::lid_images[0].content);
  EXPECT_EQ(Helper::getSettings().defaultIrisStyle, Settings{}.defaultIrisStyle);
  short x = 7, y = 8;
  EXPECT_EQ(EC::getIrisPosition(EyeSide::BOTH, x, y), -1);
  EXPECT_EQ(Pair(x, y), Pair(7, 8));

  EXPECT_EQ(EC::setPosition(EyeSide::LEFT, 250, -250, 2, 0.5f, 30, 200), 0);
  EXPECT_EQ(EC::getIrisPosition(EyeSide::LEFT, x, y), 0);
  EXPECT_EQ(Pair(x, y), Pair(250, -250));
  EXPECT_EQ(Pair(EC::Left_Eye.getScaleX(), EC::Left_Eye.getTopLidY()), Pair(2, 30));
  EXPECT_EQ(EC::getIrisPosition(EyeSide::RIGHT, x, y), 0);
  EXPECT_EQ(x, 140);
  EXPECT_EQ(EC::SetEyePosition(false, 300, 0, 1, 1, 0, 240), 0);
  EXPECT_EQ(EC::Right_Eye.getIrisX(), 300);
  EXPECT_EQ(frames(), Pair(1, 1));
}

// Only a change of both sides takes the part's offsets.
TEST_F(CommandTest, OneSidedIrisPartKeepsTheOffsetsInPlace) {
  EyePart part;
  part.offsetX = -7;
  part.offsetY = 4;
  part.left.AddFrame("", 5, 5, true, true, 0, 0, 0, 255);
  part.right.AddFrame("", 6, 6, true, true, 0, 0, 0, 255);
  EXPECT_EQ(EC::setIris(part, EyeSide::LEFT), 0);
  EXPECT_EQ(Pair(EC::Left_Eye.offsetX, EC::Left_Eye.offsetY), Pair(3, -2));
  EXPECT_EQ(Pair(EC::default_iris.offsetX, EC::default_iris.right.width), Pair(3, 20));
  EXPECT_EQ(EC::setIris(part, EyeSide::BOTH), 0);
  EXPECT_EQ(Pair(EC::Right_Eye.offsetX, EC::Right_Eye.offsetY), Pair(-7, 4));
  EXPECT_EQ(EC::default_iris.right.width, 6);
}

TEST_F(CommandTest, ColourCommandsRecordTheChoiceInTheSettings) {
  const Settings defaults;
  Settings& settings = Helper::getSettings();
  settings.defaultIrisShape = 5;
  settings.defaultBackgroundType = 1;
  // The whole default iris is reloaded even for one side.
  EXPECT_EQ(EC::setIris(IrisShape::CLASSIC, ColorCode::RED, EyeSide::LEFT), 0);
  EXPECT_EQ(settings.defaultIrisStyle + settings.defaultBackgroundStyle,
            "RED" + defaults.defaultBackgroundStyle);
  EXPECT_EQ(settings.defaultIrisShape, 0);
  EXPECT_EQ(Pair(EC::default_iris.right.width, EC::Right_Eye.offsetX), Pair(10, 3));

  ASSERT_EQ(EC::setBackground(EyeContentType::COLOR, ColorCode::TEAL), 0);
  EXPECT_EQ(settings.defaultBackgroundStyle, "TEAL");
  EXPECT_EQ(settings.defaultBackgroundType, 0);
  EXPECT_EQ(pixel(1, 0, 0), (Rgb{0, 0x88, 0x88}));
  EXPECT_EQ(frames(), Pair(2, 1));

  settings = defaults;
  EXPECT_EQ(EC::setBackground(Color{255, 0, 0}), 0);
  EXPECT_EQ(pixel(0, 239, 239), kRed);
  EXPECT_EQ(pixel(1, 0, 0), kRed);
  EXPECT_EQ(settings.defaultBackgroundStyle, defaults.defaultBackgroundStyle);

  settings.defaultIrisShape = 5;
  settings.defaultBackgroundType = 1;
  ASSERT_EQ(EC::setEyes(IrisShape::CLASSIC, ColorCode::RED, ColorCode::NAVY), 0);
  EXPECT_EQ(settings.defaultIrisStyle + settings.defaultBackgroundStyle, "REDNAVY");
  EXPECT_EQ(Pair(settings.defaultIrisShape, settings.defaultBackgroundType), Pair(0, 0));
  EXPECT_EQ(pixel(0, 0, 0), (Rgb{0, 0, 0x88}));
  EXPECT_EQ(pixel(1, 140, 140), (Rgb{255, 0, 255}));  // offsets of RED are 0
  EXPECT_EQ(EC::Left_Eye.offsetX, 0);

  // Failing half way: no settings written, nothing drawn, the iris already reloaded.
  LcdControl::resetCounters();
  EXPECT_EQ(EC::setEyes(IrisShape::CLASSIC, ColorCode::PINK, ColorCode::WHITE), -1);
  EC::background_types.erase(EC::background_types.begin());
  EXPECT_EQ(EC::setEyes(IrisShape::CLASSIC, ColorCode::BLUE, ColorCode::WHITE), -2);
  EXPECT_EQ(EC::default_iris.left.width, 20);
  EXPECT_EQ(settings.defaultIrisStyle + settings.defaultBackgroundStyle, "REDNAVY");
  EXPECT_EQ(frames(), Pair(0, 0));
  // The -2 of a missing kind is not passed on by the background command.
  EXPECT_EQ(EC::setBackground(EyeContentType::COLOR, ColorCode::NAVY), -1);
}

// --- the robot's own configuration directory ---

constexpr int kNoNamespace = 255;

// Runs in a forked child: a private tmpfs becomes the root, so the fixed paths name
// files this test wrote and nothing of the host is touched. One bit per failed check.
int runInPrivateRoot(const std::string& root) {
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", root.c_str(), "tmpfs", 0, nullptr) != 0 || chroot(root.c_str()) != 0 ||
      chdir("/") != 0)
    return kNoNamespace;
  unsetenv("EYE_LCD");
  eyetest::LogCapture log;
  const bool missingReported =
      EC::loadEyeFiles() == -1 &&
      log.count("File:/.tavi/config/eye/eyeanimations.xml NOT EXIST !") == 1;
  writeCatalogue(EC::kConfigDir);
  const bool checks[] = {missingReported,
                         // No iris of style PINK: started all the same.
                         EC::init(ColorCode::PINK, ColorCode::WHITE) == 0 && EC::isActive(),
                         EC::iris_types.size() == 3 && EC::lid_images.at(0).content.width == 240,
                         EC::init(IrisShape::CLASSIC, "BLUE", EyeContentType::COLOR, "WHITE") == 1};
  int failures = 0;
  for (int i = 0; i < 4; ++i) failures |= checks[i] ? 0 : 1 << i;
  return failures;
}

TEST_F(ControlTest, FixedPathsAreTheRobotsConfigurationDirectory) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
  eyetest::TempDir root;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(30);  // a child that hangs is killed, so the wait below ends
    _exit(runInPrivateRoot(root.path().string()));
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kNoNamespace) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "bits of the failed checks";
  EXPECT_TRUE(fs::is_empty(root.path()));
}

}  // namespace
