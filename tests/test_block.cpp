// Block kinds, their names, and block ids.
#include <gtest/gtest.h>

#include <string>

#include "Block.h"
#include "BlockEye.h"

namespace {

TEST(BlockTest, KindTextsAndNamesKeepTheirIrregularities) {
  EXPECT_EQ(Block::getBlockType("eye_animations"), BLOCK_EYE_ANIMATION);
  EXPECT_EQ(Block::getBlockType("delay_ms"), BLOCK_DELAY);
  EXPECT_EQ(Block::getBlockType("start_animation"), BLOCK_START_ANIMATION);
  EXPECT_EQ(Block::getBlockType("led"), BLOCK_LED);
  EXPECT_EQ(Block::getBlockType("led_animation"), BLOCK_LED_ANIMATION);
  EXPECT_EQ(Block::getBlockType("drive_rotate_right"), BLOCK_DRIVE_ROTATE_RIGHT);
  EXPECT_EQ(Block::getBlockType("servo"), BLOCK_SERVO);
  for (const char* other : {"", "Eye_Type", "eye_animation", "delay", "led_animation_part",
                            "ai_look", "servo ", "BLOCK_SERVO"})
    EXPECT_EQ(Block::getBlockType(other), BLOCK_UNDEFINED) << '"' << other << '"';
  EXPECT_EQ(Block::getBlockType(std::string("if\0x", 4)), BLOCK_UNDEFINED);

  EXPECT_EQ(Block::getBlockTypeName(BLOCK_EYE_ANIMATION), "BLOCK_EYE_ANIMATION");
  EXPECT_EQ(Block::getBlockTypeName(BLOCK_DELAY), "BLOCK_DELAY");
  EXPECT_EQ(Block::getBlockTypeName(BLOCK_LED_ANIMATION_PART), "BLOCK_LED_ANIMATION_PART");
  EXPECT_EQ(Block::getBlockTypeName(BLOCK_AI_LOOK), "BLOCK_AI_LOOK");
  for (int value : {0, 1, 24, 25, 49, 255})
    EXPECT_EQ(Block::getBlockTypeName(static_cast<BlockType>(value)), "BLOCK_UNDEFINED") << value;
  for (int value = 26; value <= 48; ++value)
    EXPECT_NE(Block::getBlockTypeName(static_cast<BlockType>(value)), "BLOCK_UNDEFINED") << value;
}

TEST(BlockTest, IdsWrapPastZeroAndStickToTheirBlock) {
  EXPECT_EQ(&Block::currentBlockId, &::currentBlockId);
  currentBlockId = 65534;
  EXPECT_EQ(Block::defineBlockId(), 65535);
  EXPECT_EQ(Block::defineBlockId(), 1);  // 0 is skipped
  EXPECT_EQ(Block::defineBlockId(), 2);

  BlockEye block(BLOCK_EYE_POSITION);
  EXPECT_EQ(block.type, BLOCK_EYE_POSITION);
  const uint16_t id = block.id();
  EXPECT_EQ(id, 3);
  EXPECT_EQ(block.id(), id);
  EXPECT_EQ(currentBlockId.load(), 3);  // the second call drew nothing
}

}  // namespace
