// What a robot running for hours must not pile up: heap allocations per animation
// frame, worker threads after their last notification, open files after reloading.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "AllocationCounter.h"
#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeEvent.h"
#include "EyeTestSupport.h"
#include "WorkerSupport.h"

namespace {

namespace fs = std::filesystem;
using eyetest::Recorder;
using eyetest::waitUntil;

size_t entriesIn(const char* dir) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

class ResourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    eyetest::resetEyeControl();
    ASSERT_EQ(EyeControl::initFrom(EYE_ASSETS_DIR, IrisShape::CLASSIC, "BLUE",
                                   EyeContentType::COLOR, "WHITE"),
              0);
    EyeEvent::AddListener(&recorder_, false);
  }
  void TearDown() override {
    eyetest::stopWorker();
    EyeEvent::RemoveListener(&recorder_);
    eyetest::resetEyeControl();
  }
  Recorder recorder_;
};

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

// Remembers which thread sent each last notification of a worker.
class WorkerThreads : public EyeEventListener {
 public:
  void onEyeComplete(unsigned short) override { add(); }
  void onEyeAbort(unsigned short) override { add(); }
  std::vector<pid_t> ids() {
    std::lock_guard<std::mutex> lock(mutex_);
    return ids_;
  }

 private:
  void add() {
    std::lock_guard<std::mutex> lock(mutex_);
    ids_.push_back(static_cast<pid_t>(syscall(SYS_gettid)));
  }
  std::mutex mutex_;
  std::vector<pid_t> ids_;
};

// Once a worker has sent its last notification it ends, play after play and block
// after block: its thread leaves the process.
TEST_F(ResourceTest, NoWorkerOutlivesItsNotification) {
  WorkerThreads workers;
  EyeEvent::AddListener(&workers, false);
  const std::string longest = EyeControl::eye_animations.back()->name;
  for (unsigned short i = 1; i <= 10; ++i) {
    if (i % 2) {
      ASSERT_EQ(EyeControl::setAnimation(i, longest), 0);
    } else {
      auto block = std::make_shared<BlockEye>(BLOCK_EYE_POSITION);
      block->positions = {{EyeSide::BOTH, 0, 20, 0}};
      ASSERT_EQ(EyeControl::ProcessEyeBlock(block), 0);
    }
    EyeControl::Abort();
    // One notification per play, a start and a complete per block.
    ASSERT_TRUE(recorder_.waitForCount((i + 1) / 2 + 2 * (i / 2))) << "worker " << i;
    // The recorder hears first; this listener may not have run yet.
    ASSERT_TRUE(waitUntil([&] { return workers.ids().size() >= i; })) << "worker " << i;
    const pid_t worker = workers.ids().at(i - 1u);
    const std::string task = "/proc/self/task/" + std::to_string(worker);
    EXPECT_TRUE(waitUntil([&] { return !fs::exists(task); })) << "worker " << i << " still runs";
  }
  EyeEvent::RemoveListener(&workers);
}

// Catalogues naming good, truncated, missing images, a directory and a FIFO, loaded
// and looked up over and over: no file stays open, and the FIFO does not block.
TEST_F(ResourceTest, RepeatedLoadingLeavesNoFileOpen) {
  eyetest::TempDir dir;
  const std::string good = std::string(EYE_ASSETS_DIR) + "/images/eyelid/neutral_top.png";
  std::string bytes(fs::file_size(good), '\0');
  std::ifstream(good, std::ios::binary).read(bytes.data(), bytes.size());
  dir.write("truncated.png", bytes.substr(0, bytes.size() / 2));
  ASSERT_EQ(mkfifo((dir.str() + "fifo.png").c_str(), 0600), 0);
  fs::create_directory(dir.str() + "folder.png");
  const char* images[] = {"truncated.png", "fifo.png", "folder.png", "missing.png"};
  std::string lids = "<List><Images>", irises = "<List><Iris_Type name=\"CLASSIC\">";
  lids += "<Data id=\"0\" path=\"" + good + "\"/>";
  for (const char* image : images) {
    lids += std::string("<Data id=\"1\" path=\"") + image + "\"/>";
    irises += std::string("<Iris style=\"") + image + "\" left=\"" + image + "\"/>";
  }
  dir.write("eyelid.xml", lids + "</Images></List>");
  dir.write("iris_type.xml", irises + "</Iris_Type></List>");
  dir.write("background_type.xml", "<List/>");
  dir.write("eyeanimations.xml", "<List/>");

  eyetest::LogCapture quiet;
  const size_t openFiles = entriesIn("/proc/self/fd");
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(EyeControl::loadEyeFilesFrom(dir.str()), 0);
    ASSERT_EQ(EyeControl::lid_images.size(), 5u);
    EXPECT_TRUE(EyeControl::lid_images[0].content.isReady());
    for (size_t i = 1; i < 5; ++i) EXPECT_FALSE(EyeControl::lid_images[i].content.isReady());
    for (const char* image : images) {
      EyePart part;
      EXPECT_EQ(EyeControl::getIris(IrisShape::CLASSIC, image, part), 0);
      EXPECT_FALSE(part.left.isReady());
    }
  }
  EXPECT_EQ(entriesIn("/proc/self/fd"), openFiles);
}

}  // namespace
