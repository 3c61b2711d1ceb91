// Block kinds and ids, and the event registry that tells listeners about eye work by id:
// who hears what, in which order, under which lock.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Block.h"
#include "BlockEye.h"
#include "EyeEvent.h"
#include "EyeEventListener.h"

namespace {

using Log = std::vector<std::string>;
Log heard;

// Notes a notification, and whether the registry was locked at the time.
void note(const std::string& what, unsigned short id) {
  const bool locked = !EyeEvent::mtx.try_lock();
  if (!locked) EyeEvent::mtx.unlock();
  heard.push_back(what + " " + std::to_string(id) + (locked ? " locked" : ""));
}

struct Named : EyeEventListener {
  explicit Named(std::string n) : name(std::move(n)) {}
  void onEyeStart(unsigned short id) override { note(name + " start", id); }
  void onEyeComplete(unsigned short id) override { note(name + " complete", id); }
  void onEyeAbort(unsigned short id) override { note(name + " abort", id); }
  std::string name;
};

template <int N>
void f(unsigned short id) {
  note("f" + std::to_string(N), id);
}

Log deliver(void (*notify)(unsigned short), unsigned short id) {
  heard.clear();
  notify(id);
  return heard;
}

TEST(BlockTest, KindTextsNamesAndIds) {
  EXPECT_EQ(Block::getBlockType("eye_animations"), BLOCK_EYE_ANIMATION);
  EXPECT_EQ(Block::getBlockType("servo"), BLOCK_SERVO);
  for (const char* other :
       {"", "eye_animation", "delay", "led_animation_part", "servo ", "BLOCK_SERVO"})
    EXPECT_EQ(Block::getBlockType(other), BLOCK_UNDEFINED) << '"' << other << '"';
  EXPECT_EQ(Block::getBlockType({"if\0x", 4}), BLOCK_UNDEFINED);
  EXPECT_EQ(Block::getBlockTypeName(BLOCK_LED_ANIMATION_PART), "BLOCK_LED_ANIMATION_PART");
  for (int value = 0; value < 256; ++value)
    EXPECT_EQ(Block::getBlockTypeName(static_cast<BlockType>(value)) == "BLOCK_UNDEFINED",
              value < 26 || value > 48)
        << value;

  // Ids skip 0 when they wrap, and a block draws its id once.
  currentBlockId = 65534;
  EXPECT_EQ(Block::defineBlockId(), 65535);
  EXPECT_EQ(Block::defineBlockId(), 1);
  BlockEye block(BLOCK_EYE_POSITION);
  EXPECT_EQ(block.id(), 2);
  EXPECT_EQ(block.id(), 2);
  EXPECT_EQ(currentBlockId.load(), 2);
}

TEST(EventsTest, ObjectsInPriorityOrderUnderTheLockThenFunctionsUnlocked) {
  Named a("a"), b("b"), c("c");
  EyeEvent::AddListenerOnStart(f<1>);    // registered first, still called after the objects
  EyeEvent::AddListener(nullptr, true);  // null objects and functions are skipped
  EyeEvent::AddListener(&a, false);
  EyeEvent::AddListener(&b, true);
  EyeEvent::AddListener(&c, true);
  EyeEvent::AddListener(&a, false);
  EyeEvent::AddListenerOnStart(f<2>);
  EyeEvent::AddListenerOnComplete(nullptr);
  EyeEvent::AddListenerOnComplete(f<3>);
  EyeEvent::AddListenerOnComplete(f<3>);
  EXPECT_EQ(deliver(EyeEvent::EyeStart, 7),
            (Log{"c start 7 locked", "b start 7 locked", "a start 7 locked", "a start 7 locked",
                 "f1 7", "f2 7"}));

  // Each removal takes the first registration only (a, added twice, is heard once);
  // unknown or misplaced ones do nothing.
  EyeEvent::RemoveListener(&a);
  EyeEvent::RemoveListener(&b);
  EyeEvent::RemoveListenerOnComplete(f<3>);
  EyeEvent::RemoveListenerOnComplete(f<1>);
  EyeEvent::RemoveListenerOnAbort(f<3>);
  EXPECT_EQ(deliver(EyeEvent::EyeComplete, 65535),
            (Log{"c complete 65535 locked", "a complete 65535 locked", "f3 65535"}));
}

}  // namespace
