// The facade: catalogue loading, start-up, image lookup and appearance commands, checked
// through the frames the panels receive; and what a robot running for hours must survive
// and not pile up (run under ASan too): images and records whose sizes lie, heap
// allocations per frame, worker threads, open files.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <tuple>

#include "AllocationCounter.h"
#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeEvent.h"
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
const std::string kAssets = EYE_ASSETS_DIR;

// In load order: 20 x 20 irises (red left, green right), 10 x 10 magenta, blue and cyan
// backgrounds, two black lids (10 and 12 rows) with a yellow fill.
const std::pair<const char*, const char*> kFiles[] = {
    {"eyeanimations.xml", R"(<List><Animation Id="1" Name="look" Categories="IDLE"/></List>)"},
    {"background_type.xml", R"(<List><Background_Type name="COLOR"><Background style="WHITE"/>
</Background_Type><Background_Type name="IMAGE"><Background style="SKY" left="bg/l.png"
right="bg/r.png"/></Background_Type></List>)"},
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
  const std::tuple<const char*, int, int, Rgb> images[] = {
      {"iris/l.png", 20, 20, kRed},
      {"iris/r.png", 20, 20, kGreen},
      {"iris/small.png", 10, 10, {255, 0, 255}},
      {"bg/l.png", 240, 240, {0, 0, 255}},
      {"bg/r.png", 240, 240, {0, 255, 255}},
      {"lids/a.png", 240, 10, {}},
      {"lids/b.png", 240, 12, {}}};
  for (const auto& [name, w, h, rgb] : images) {
    VContent image;
    image.AddFrame("", w, h, true, false, rgb[0], rgb[1], rgb[2], 255);
    VContent::writePng((dir / name).string(), w, h, image.frames[0].data(), true);
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
  void TearDown() override {
    eyetest::stopWorker();
    eyetest::resetEyeControl();
  }
  int8_t start(const std::string& from = "", const char* iris = "BLUE",
               EyeContentType kind = EyeContentType::COLOR, const char* background = "WHITE") {
    return EC::initFrom(from.empty() ? dir.path().string() : from, IrisShape::CLASSIC, iris, kind,
                        background);
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

// Init fails without a catalogue file or the panels; without its defaults it goes on
// (no iris, the background from before), and they reload from the settings.
TEST_F(ControlTest, InitDrawsOnceAndDefaultsReloadFromTheSettings) {
  EXPECT_EQ(start(dir.str() + "none"), -1);
  const std::string saved = std::getenv("EYE_LCD") ? std::getenv("EYE_LCD") : "memory";
  setenv("EYE_LCD", "png:/proc/nonexistent/x", 1);
  const int8_t failed = start();
  setenv("EYE_LCD", saved.c_str(), 1);
  EXPECT_EQ(failed, -2);
  EXPECT_FALSE(EC::isActive());
  EXPECT_EQ(EC::iris_types.size(), 3u);  // the catalogues stay loaded
  EXPECT_EQ(frames(), Pair(0, 0));

  log.clear();
  EC::FillBackgroundColor(EC::default_background, {0, 255, 0}, true);
  ASSERT_EQ(start("", "PINK", EyeContentType::IMAGE, "NONE"), 0);
  EXPECT_TRUE(EC::isActive() && !EC::isAnimating());
  EXPECT_EQ(log.errors(), (std::vector<std::string>{"Eye Control default iris set failed!",
                                                    "Eye Control default background set failed!"}));
  EXPECT_EQ(EC::Left_Eye.iris, &EC::default_iris.left);
  EXPECT_EQ(pixel(1, 140, 140), kGreen);
  const Eyes& r = EC::Right_Eye;
  EXPECT_EQ(Pair(r.getIrisX(), r.getIrisY()), Pair(140, 140));
  EXPECT_TRUE(r.topLid == &EC::lid_images[0].content && r.lidImages == &EC::lid_images &&
              r.bottomLidColor == EC::lid_images[0].color);  // lids attached but open
  EXPECT_EQ(start(), 1);
  EXPECT_EQ(frames(), Pair(1, 1));

  Settings& settings = Helper::getSettings();
  settings.defaultIrisStyle = "MISSING";
  settings.defaultBackgroundType = static_cast<uint8_t>(EyeContentType::IMAGE);
  settings.defaultBackgroundStyle = "WHITE";
  EXPECT_EQ(EC::loadDefaultIris(), -1);
  EXPECT_EQ(EC::loadDefaultBackground(), -1);
  EXPECT_EQ(frames(), Pair(1, 1));
  settings.defaultIrisStyle = "BLUE";
  settings.defaultBackgroundStyle = "SKY";
  EXPECT_EQ(EC::loadDefaultIris(), 0);
  EXPECT_EQ(EC::loadDefaultBackground(), 0);
  EXPECT_EQ(frames(), Pair(3, 3));
  // Offsets (3, -2) mirror: the 20 x 20 left iris centred at (97, 138), the right one at
  // (143, 138), over blue and cyan.
  EXPECT_EQ(pixel(0, 87, 128), kRed);
  EXPECT_EQ(pixel(0, 107, 147), (Rgb{0, 0, 255}));
  EXPECT_EQ(pixel(1, 133, 128), kGreen);
  EXPECT_EQ(pixel(1, 132, 128), (Rgb{0, 255, 255}));
}

TEST_F(ControlTest, LookupTakesTheFirstGroupOfAKindAndTheFirstExactStyle) {
  ASSERT_EQ(EC::loadEyeFilesFrom(dir.str()), 0);
  EyePart part;
  part.offsetX = 9;
  EXPECT_EQ(EC::getIris(IrisShape::GLOW, "BLUE", part), -2);
  EXPECT_EQ(EC::getIris(IrisShape::CLASSIC, "blue", part), -1);
  EXPECT_EQ(EC::getIris(IrisShape::CLASSIC, "LATE", part), -1);
  EXPECT_EQ(EC::getBackground(EyeContentType::IMAGE, "WHITE", part), -1);
  EXPECT_EQ(Pair(part.offsetX, part.left.frames.size()), Pair(9, 0));

  ASSERT_EQ(EC::getIris(IrisShape::CLASSIC, "BLUE", part), 0);
  EXPECT_EQ(Pair(part.offsetX, part.offsetY), Pair(3, -2));
  EXPECT_EQ((std::vector<int>{part.left.width, part.left.bytesPerPixel, part.left.frames[0][0]}),
            (std::vector<int>{20, 4, 15}));  // red, 12-bit
  EXPECT_STREQ(EC::getIrisPath(IrisShape::CLASSIC, "BLUE", true), "iris/l.png");
  EXPECT_STREQ(EC::getIrisPath(IrisShape::CLASSIC, "BLUE", false), "iris/r.png");

  ASSERT_EQ(EC::getBackground(EyeContentType::IMAGE, "SKY", part), 0);
  EXPECT_EQ(Pair(part.left.bytesPerPixel, part.right.frames[0][1]), Pair(3, 15));
  ASSERT_EQ(EC::getBackground(EyeContentType::COLOR, "RED", part), 0);
  EXPECT_EQ(Pair(part.right.frames[0][0], part.right.frames[0][1]), Pair(15, 0));
  EC::background_types.erase(EC::background_types.begin());  // no COLOR group
  EyePart untouched;
  EXPECT_EQ(EC::getBackground(EyeContentType::COLOR, "WHITE", untouched), -2);
  EXPECT_TRUE(untouched.left.frames.empty());
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
  VContent image, lid, bgImage;
  bgImage.AddFrame("", 240, 240, false, false, 0, 0, 0, 255);
  EyePart part, bgPart;
  part.offsetX = -7;
  part.left.AddFrame("", 7, 7, true, true, 0, 0, 0, 255);
  part.right.AddFrame("", 9, 9, true, true, 0, 0, 0, 255);
  bgPart.left.AddFrame("", 240, 240, false, false, 1, 0, 0, 255);
  bgPart.right.AddFrame("", 240, 240, false, false, 2, 0, 0, 255);
  const EyeLidPart* lids = EC::lid_images.data();
  EyeSide side = EyeSide::BOTH;
  using Changed = std::function<bool(const Eyes&)>;
  const std::pair<std::function<int()>, Changed> cases[] = {
      {[&] { return EC::setIris(&image, side); }, [&](const Eyes& e) { return e.iris == &image; }},
      // A part's offsets come only with both sides.
      {[&] { return EC::setIris(part, side); },
       [&](const Eyes& e) {
         return e.iris->width == (e.isLeft ? 7 : 9) &&
                e.offsetX == (side == EyeSide::BOTH ? -7 : 3);
       }},
      {[&] { return EC::setIris(IrisShape::CLASSIC, ColorCode::RED, side); },
       [&](const Eyes& e) { return e.offsetX == 0; }},
      {[&] { return EC::setBackground(&bgImage, side); },
       [&](const Eyes& e) { return e.background == &bgImage; }},
      {[&] { return EC::setBackground(bgPart, side); },
       [&](const Eyes& e) { return e.background->frames[0][0] == (e.isLeft ? 1 : 2); }},
      {[&] { return EC::setLid(&lid, true, side); },
       [&](const Eyes& e) { return e.topLid == &lid && e.bottomLid != &lid; }},
      {[&] { return EC::setLid(&lid, false, side); },
       [&](const Eyes& e) { return e.bottomLid == &lid && e.topLid != &lid; }},
      // Lid indexes switch the images but keep the fill colours.
      {[&] { return EC::setLid(1, kFirstLid, side); },
       [&](const Eyes& e) {
         return e.topLid == &lids[1].content && e.topLidIndex == 1 &&
                e.bottomLid == &lids[0].content && e.bottomLidIndex == 0 &&
                e.topLidColor == lids[0].color;
       }},
      {[&] { return EC::setPosition(side, 10, -20, 1, 1, 0, 240); },
       [&](const Eyes& e) { return e.getIrisX() == 10 && e.getIrisY() == -20; }},
  };
  for (size_t c = 0; c < std::size(cases); ++c) {
    for (uint8_t value : {0, 1, 2, 3}) {
      rewire();
      side = static_cast<EyeSide>(value);
      const bool left = value < 2, right = value == 0 || value == 2;
      SCOPED_TRACE("case " + std::to_string(c) + " side " + std::to_string(value));
      EXPECT_EQ(cases[c].first(), 0);
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
  EXPECT_EQ(Helper::getSettings().defaultIrisStyle, Settings{}.defaultIrisStyle);
  short x = 7, y = 8;
  EXPECT_EQ(EC::getIrisPosition(EyeSide::BOTH, x, y), -1);
  EXPECT_EQ(Pair(x, y), Pair(7, 8));

  EXPECT_EQ(EC::setPosition(EyeSide::LEFT, 250, -250, 2, 0.5f, 30, 200), 0);
  EXPECT_EQ(EC::getIrisPosition(EyeSide::LEFT, x, y), 0);
  EXPECT_EQ(Pair(x, y), Pair(250, -250));
  EXPECT_EQ(Pair(EC::Left_Eye.getScaleX(), EC::Left_Eye.getTopLidY()), Pair(2, 30));
  EXPECT_EQ(EC::SetEyePosition(false, 300, 0, 1, 1, 0, 240), 0);
  EXPECT_EQ(EC::Right_Eye.getIrisX(), 300);
  EXPECT_EQ(frames(), Pair(1, 1));
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

// In a forked child whose root is a private tmpfs, so the fixed directory holds what
// this test wrote and nothing of the host is touched. No iris of style PINK: started
// all the same.
TEST_F(ControlTest, FixedPathsAreTheRobotsConfigurationDirectory) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(30);  // a child that hangs is killed, so the wait below ends
    const char* at = dir.path().c_str();
    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", at, "tmpfs", 0, nullptr) != 0 || chroot(at) != 0 || chdir("/") != 0)
      _exit(255);
    unsetenv("EYE_LCD");
    writeCatalogue(EC::kConfigDir);
    const bool ok = EC::init(ColorCode::PINK, ColorCode::WHITE) == 0 &&
                    EC::iris_types.size() == 3 &&
                    EC::init(IrisShape::CLASSIC, "BLUE", EyeContentType::COLOR, "WHITE") == 1;
    _exit(ok ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WEXITSTATUS(status) == 255) GTEST_SKIP() << "needs root and a private mount namespace";
  EXPECT_EQ(status, 0);
}

// --- what lies, and what must not pile up ---

TEST_F(ControlTest, HugeImagesOrTooManyFramesAreRefusedBeforeAllocating) {
  // A valid header of 4097 x 4096 pixels, one column past the limit.
  const std::string huge = EYE_TEST_SOURCE_DIR "/fuzz/regressions/png/header-4097x4096.png";
  fs::create_directory(dir.str() + "frames");
  fs::copy_file(huge, dir.str() + "frames/a.png");
  VContent source;
  source.AddFrame("", 300, 300, true, false, 9, 9, 9, 255);
  const std::string sheet = dir.str() + "sheet.png";
  ASSERT_TRUE(VContent::writePng(sheet, 300, 300, source.frames[0].data(), true));
  auto sequence = [](const std::string& path, uint16_t cell) {
    VContent image;
    image.path = path;
    image.width = image.height = cell;
    image.loadSequence();
    return image;
  };
  const std::function<VContent()> loads[] = {
      [&] { return VContent::getImage(huge, true, true); },
      [&] { return VContent::getImage(dir.str() + "frames", true, true); },
      [&] { return sequence(huge, 240); },
      [&] { return sequence(sheet, 1); },  // 90000 cells, more than a 16-bit index reaches
      [&] {
        VContent made;
        made.AddFrame("", 5000, 5000, true, true, 1, 2, 3, 4);
        return made;
      }};
  for (size_t i = 0; i < std::size(loads); ++i) {
    log.clear();
    eyetest::threadAllocations().largest = 0;
    EXPECT_FALSE(loads[i]().isReady()) << i;
    EXPECT_LT(eyetest::threadAllocations().largest, size_t{1} << 20) << i;
    EXPECT_EQ(log.errors().size(), 1u) << i;
  }
  EXPECT_EQ(sequence(sheet, 2).frames.size(), 22500u);
}

// Two plays on this thread that differ only in length allocate the same: nothing per
// frame, with moving, scaling, turning irises and a lid image sequence ticking.
TEST_F(ControlTest, PlayingTheBundledSetAllocatesNothingPerFrame) {
  ASSERT_EQ(start(kAssets), 0);
  short sequenceLid = -1;
  for (size_t i = 0; i < EC::lid_images.size(); ++i)
    if (!EC::lid_images[i].content.isReady()) sequenceLid = static_cast<short>(i);
  ASSERT_GE(sequenceLid, 0) << "the bundled set has a lid sequence";
  auto allocationsOfPlay = [&](short moveMs) {
    auto animation = std::make_shared<EyeAnimation>(1, "sweep");
    animation->left.events = {
        moveEvent(60, 100, moveMs, 0, 1.4f, 0.8f, 40.0, 40, 200, sequenceLid, 1, 0, 0),
        moveEvent(150, 140, moveMs, 80, 0.9f, 1.2f, 40.0, 0, 240, 0, sequenceLid, 90, 30)};
    animation->right.events = animation->left.events;
    std::atomic_store(&EC::active_animation, animation);
    EC::active_type = BLOCK_EYE_ANIMATION;
    EC::is_processing = true;
    const long before = eyetest::threadAllocations().count;
    EXPECT_EQ(EC::processEyeAnimation(7), 0);
    return eyetest::threadAllocations().count - before;
  };
  allocationsOfPlay(200);  // first show of the lid sequence loads it
  EXPECT_EQ(allocationsOfPlay(160), allocationsOfPlay(800));
}

// Once a worker has sent its last notification it ends, play after play and block after
// block: its thread leaves the process.
TEST_F(ControlTest, NoWorkerOutlivesItsNotification) {
  ASSERT_EQ(start(kAssets), 0);
  struct : EyeEventListener {
    void onEyeComplete(unsigned short) override { last = static_cast<pid_t>(syscall(SYS_gettid)); }
    void onEyeAbort(unsigned short) override { last = static_cast<pid_t>(syscall(SYS_gettid)); }
    std::atomic<pid_t> last{0};
  } worker;
  EyeEvent::AddListener(&worker, false);
  for (unsigned short i = 1; i <= 10; ++i) {
    worker.last = 0;
    auto block = std::make_shared<BlockEye>(BLOCK_EYE_POSITION);
    block->positions = {{EyeSide::BOTH, 0, 20, 0}};
    ASSERT_EQ(
        i % 2 ? EC::setAnimation(i, EC::eye_animations.back()->name) : EC::ProcessEyeBlock(block),
        0);
    EC::Abort();
    ASSERT_TRUE(eyetest::waitUntil([&] { return worker.last != 0; })) << i;
    const std::string task = "/proc/self/task/" + std::to_string(worker.last);
    EXPECT_TRUE(eyetest::waitUntil([&] { return !fs::exists(task); })) << i << " still runs";
  }
  EyeEvent::RemoveListener(&worker);
}

// An eyelid catalogue naming good, truncated, missing images, a directory and a FIFO,
// loaded over and over: no file stays open, and the FIFO does not block.
TEST_F(ControlTest, RepeatedLoadingLeavesNoFileOpen) {
  const std::string good = kAssets + "/images/eyelid/neutral_top.png";
  fs::copy_file(good, dir.str() + "truncated.png");
  fs::resize_file(dir.str() + "truncated.png", fs::file_size(good) / 2);
  ASSERT_EQ(mkfifo((dir.str() + "fifo.png").c_str(), 0600), 0);
  fs::create_directory(dir.str() + "folder.png");
  std::string lids = "<List><Images><Data id=\"0\" path=\"" + good + "\"/>";
  for (const char* image : {"truncated.png", "fifo.png", "folder.png", "missing.png"})
    lids += "<Data id=\"1\" path=\"" + std::string(image) + "\"/>";
  dir.write("eyelid.xml", lids + "</Images></List>");
  auto openFiles = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const auto before = openFiles();
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(EC::loadEyeFilesFrom(dir.str()), 0);
    ASSERT_EQ(EC::lid_images.size(), 5u);
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(EC::lid_images[i].content.isReady(), i == 0);
  }
  EXPECT_EQ(openFiles(), before);
}

}  // namespace
