// What a robot running for hours must survive and not pile up: images and records whose
// sizes lie (refused before anything large is allocated, or drawn without reading outside
// the image; run under ASan too), heap allocations per frame, worker threads after their
// last notification, open files after reloading.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "AllocationCounter.h"
#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeEvent.h"
#include "EyeTestSupport.h"
#include "LcdControl.h"
#include "WorkerSupport.h"

namespace {

namespace fs = std::filesystem;
using eyetest::waitUntil;

const std::string kAssets = EYE_ASSETS_DIR;

std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(LyingFiles, HugeOrTooManyFramesAreRefusedBeforeAllocating) {
  eyetest::TempDir tmp;
  eyetest::LogCapture log;
  // A valid header of 4097 x 4096 pixels, one column past the limit.
  const std::string huge = EYE_TEST_SOURCE_DIR "/fuzz/regressions/png/header-4097x4096.png";
  fs::create_directory(tmp.str() + "frames");
  fs::copy_file(huge, tmp.str() + "frames/a.png");
  VContent source;
  source.AddFrame("", 300, 300, true, false, 9, 9, 9, 255);
  const std::string sheet = tmp.str() + "sheet.png";
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
      [&] { return VContent::getImage(tmp.str() + "frames", true, true); },
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

// Every prefix of a valid file either decodes whole or gives no frames and one error.
TEST(LyingFiles, EveryTruncationOfAnImageIsRefusedCleanly) {
  eyetest::TempDir tmp;
  const std::string bytes = fileBytes(kAssets + "/images/iris/classic_blue.png");
  ASSERT_GT(bytes.size(), 100u);
  for (size_t length = 0; length < bytes.size(); length += 1 + length / 16) {
    eyetest::LogCapture log;
    VContent image = VContent::getImage(tmp.write("cut.png", bytes.substr(0, length)), true, true);
    if (image.isReady())
      EXPECT_EQ(image.frames[0].size(), size_t{image.width} * image.height * 4) << length;
    else
      EXPECT_EQ(log.errors().size(), 1u) << length;
  }
}

class ResourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    eyetest::resetEyeControl();
    ASSERT_EQ(
        EyeControl::initFrom(kAssets, IrisShape::CLASSIC, "BLUE", EyeContentType::COLOR, "WHITE"),
        0);
  }
  void TearDown() override {
    eyetest::stopWorker();
    eyetest::resetEyeControl();
  }
  // The left panel after composing, 4-bit channels: is (x, y) of colour `rgb`?
  static bool pixelIs(int x, int y, std::array<uint8_t, 3> rgb) {
    const auto frame = LcdControl::unpack12Bit(LcdControl::lastFrame(0).data());
    const size_t at = (static_cast<size_t>(y) * 240 + x) * 3;
    return frame[at] == rgb[0] * 17 && frame[at + 1] == rgb[1] * 17 && frame[at + 2] == rgb[2] * 17;
  }
};

// Records that do not fit the panel: an iris larger than the panel is clipped wherever it
// stands; a background smaller than the panel, or any frame shorter than its size says,
// is not read (black background, no iris, the lid's fill colour for a narrow lid).
TEST_F(ResourceTest, RecordsThatDoNotFitThePanelAreNotReadOutside) {
  Eyes& eye = EyeControl::Left_Eye;
  VContent iris, background, lid;
  uint8_t lidColour[4] = {3, 3, 3, 255};
  eye.iris = &iris;
  eye.background = &background;
  eye.topLid = eye.bottomLid = &lid;
  eye.topLidColor = eye.bottomLidColor = lidColour;
  iris.AddFrame("", 300, 280, true, true, 255, 0, 0, 255);
  background.AddFrame("", 100, 100, false, true, 255, 255, 255, 255);
  for (float scale : {0.5f, 1.0f, 1.7f, 3.0f})
    for (int x : {-250, 0, 120, 239, 250}) eye.set_Frame_12Bit(scale, scale, x, x / 2, 0, 240);
  eye.set_Frame_12Bit(1, 1, 120, 120, 0, 240);
  for (int y = 0; y < 240; y += 7)
    for (int x = 0; x < 240; x += 7) ASSERT_TRUE(pixelIs(x, y, {15, 0, 0})) << x << "," << y;

  iris = VContent{};
  iris.AddFrame("", 20, 20, true, true, 0, 255, 0, 255);
  eye.set_Frame_12Bit(1, 1, 120, 120, 0, 240);
  EXPECT_TRUE(pixelIs(0, 0, {0, 0, 0}) && pixelIs(239, 239, {0, 0, 0}));
  EXPECT_TRUE(pixelIs(120, 120, {0, 15, 0}));

  background = VContent{};  // claims 240 x 240 but holds one row
  background.AddFrame("", 240, 1, false, true, 255, 255, 255, 255);
  background.height = 240;
  eye.set_Frame_12Bit(1, 1, 120, 120, 0, 240);
  EXPECT_TRUE(pixelIs(0, 0, {0, 0, 0}));

  background = VContent{};
  background.AddFrame("", 240, 240, false, true, 255, 255, 255, 255);
  lid.AddFrame("", 100, 40, true, true, 0, 0, 255, 255);
  iris.frames[0].resize(20 * 4);
  eye.set_Frame_12Bit(1, 1, 120, 120, 60, 180);
  EXPECT_TRUE(pixelIs(10, 30, {3, 3, 3}) && pixelIs(10, 200, {3, 3, 3}));  // both lids
  EXPECT_TRUE(pixelIs(120, 120, {15, 15, 15}));                            // no iris
}

// Two plays on this thread that differ only in length allocate the same: nothing per
// frame, with moving, scaling, turning irises and a lid image sequence ticking.
TEST_F(ResourceTest, PlayingAllocatesNothingPerFrame) {
  short sequenceLid = -1;
  for (size_t i = 0; i < EyeControl::lid_images.size(); ++i)
    if (!EyeControl::lid_images[i].content.isReady()) sequenceLid = static_cast<short>(i);
  ASSERT_GE(sequenceLid, 0) << "the bundled set has a lid sequence";

  auto allocationsOfPlay = [&](short moveMs) {
    auto animation = std::make_shared<EyeAnimation>(1, "sweep");
    animation->left.events = {
        moveEvent(60, 100, moveMs, 0, 1.4f, 0.8f, 40.0, 40, 200, sequenceLid, 1, 0, 0),
        moveEvent(150, 140, moveMs, 80, 0.9f, 1.2f, 40.0, 0, 240, 0, sequenceLid, 90, 30)};
    animation->right.events = animation->left.events;
    std::atomic_store(&EyeControl::active_animation, animation);
    EyeControl::active_type = BLOCK_EYE_ANIMATION;
    EyeControl::is_processing = true;
    const long before = eyetest::threadAllocations().count;
    EXPECT_EQ(EyeControl::processEyeAnimation(7), 0);
    return eyetest::threadAllocations().count - before;
  };
  allocationsOfPlay(200);  // first show of the lid sequence loads it
  EXPECT_EQ(allocationsOfPlay(160), allocationsOfPlay(800));
}

// Once a worker has sent its last notification it ends, play after play and block after
// block: its thread leaves the process.
TEST_F(ResourceTest, NoWorkerOutlivesItsNotification) {
  struct : EyeEventListener {
    void onEyeComplete(unsigned short) override { last = static_cast<pid_t>(syscall(SYS_gettid)); }
    void onEyeAbort(unsigned short) override { last = static_cast<pid_t>(syscall(SYS_gettid)); }
    std::atomic<pid_t> last{0};
  } worker;
  EyeEvent::AddListener(&worker, false);
  const std::string longest = EyeControl::eye_animations.back()->name;
  for (unsigned short i = 1; i <= 10; ++i) {
    worker.last = 0;
    if (i % 2) {
      ASSERT_EQ(EyeControl::setAnimation(i, longest), 0);
    } else {
      auto block = std::make_shared<BlockEye>(BLOCK_EYE_POSITION);
      block->positions = {{EyeSide::BOTH, 0, 20, 0}};
      ASSERT_EQ(EyeControl::ProcessEyeBlock(block), 0);
    }
    EyeControl::Abort();
    ASSERT_TRUE(waitUntil([&] { return worker.last != 0; })) << "worker " << i;
    const std::string task = "/proc/self/task/" + std::to_string(worker.last);
    EXPECT_TRUE(waitUntil([&] { return !fs::exists(task); })) << "worker " << i << " still runs";
  }
  EyeEvent::RemoveListener(&worker);
}

// An eyelid catalogue naming good, truncated, missing images, a directory and a FIFO,
// loaded over and over: no file stays open, and the FIFO does not block.
TEST_F(ResourceTest, RepeatedLoadingLeavesNoFileOpen) {
  eyetest::TempDir dir;
  const std::string good = kAssets + "/images/eyelid/neutral_top.png";
  const std::string bytes = fileBytes(good);
  dir.write("truncated.png", bytes.substr(0, bytes.size() / 2));
  ASSERT_EQ(mkfifo((dir.str() + "fifo.png").c_str(), 0600), 0);
  fs::create_directory(dir.str() + "folder.png");
  std::string lids = "<List><Images><Data id=\"0\" path=\"" + good + "\"/>";
  for (const char* image : {"truncated.png", "fifo.png", "folder.png", "missing.png"})
    lids += "<Data id=\"1\" path=\"" + std::string(image) + "\"/>";
  dir.write("eyelid.xml", lids + "</Images></List>");
  for (const char* name : {"iris_type.xml", "background_type.xml", "eyeanimations.xml"})
    dir.write(name, "<List/>");

  eyetest::LogCapture quiet;
  auto openFiles = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const auto before = openFiles();
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(EyeControl::loadEyeFilesFrom(dir.str()), 0);
    ASSERT_EQ(EyeControl::lid_images.size(), 5u);
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(EyeControl::lid_images[i].content.isReady(), i == 0);
  }
  EXPECT_EQ(openFiles(), before);
}

}  // namespace
