// Block kinds, their names, and block ids.
#include <gtest/gtest.h>

#include <string>

#include "Block.h"
#include "BlockEye.h"

namespace {

TEST(BlockTest, KindTextsMapExactly) {
  const std::pair<const char*, BlockType> kinds[] = {
      {"start_animation", BLOCK_START_ANIMATION},
      {"drive_distance", BLOCK_DRIVE_DISTANCE},
      {"drive_xy", BLOCK_DRIVE_XY},
      {"drive_rotate", BLOCK_DRIVE_ROTATE},
      {"drive_rotate_left", BLOCK_DRIVE_ROTATE_LEFT},
      {"drive_rotate_right", BLOCK_DRIVE_ROTATE_RIGHT},
      {"arm_set_angle", BLOCK_ARM_SET_ANGLE},
      {"eye_animations", BLOCK_EYE_ANIMATION},
      {"eye_position", BLOCK_EYE_POSITION},
      {"eye_type", BLOCK_EYE_TYPE},
      {"eye_background", BLOCK_EYE_BACKGROUND},
      {"sound", BLOCK_SOUND},
      {"led", BLOCK_LED},
      {"led_animation", BLOCK_LED_ANIMATION},
      {"delay_ms", BLOCK_DELAY},
      {"speak", BLOCK_SPEAK},
      {"gpio_set", BLOCK_GPIO_SET},
      {"gpio_wait", BLOCK_GPIO_WAIT},
      {"gpio_if", BLOCK_GPIO_IF},
      {"if", BLOCK_IF},
      {"repeat", BLOCK_REPEAT},
      {"servo", BLOCK_SERVO},
  };
  for (const auto& kind : kinds)
    EXPECT_EQ(Block::getBlockType(kind.first), kind.second) << kind.first;
  EXPECT_EQ(Block::getBlockType("eye_animations"), 32);
  for (const char* other : {"", "Eye_Type", "eye_animation", "delay", "led_animation_part",
                            "ai_look", "servo ", "eye_type\n"})
    EXPECT_EQ(Block::getBlockType(other), BLOCK_UNDEFINED) << '"' << other << '"';
  // A text with an embedded NUL is not the shorter text.
  EXPECT_EQ(Block::getBlockType(std::string("if\0x", 4)), BLOCK_UNDEFINED);
}

TEST(BlockTest, NamesFollowTheIrregularTable) {
  EXPECT_EQ(Block::getBlockTypeName(BLOCK_EYE_ANIMATION), "BLOCK_EYE_ANIMATION");
  EXPECT_EQ(Block::getBlockTypeName(BLOCK_DELAY), "BLOCK_DELAY");
  EXPECT_EQ(Block::getBlockTypeName(BLOCK_LED_ANIMATION_PART), "BLOCK_LED_ANIMATION_PART");
  EXPECT_EQ(Block::getBlockTypeName(BLOCK_AI_LOOK), "BLOCK_AI_LOOK");
  EXPECT_EQ(Block::getBlockTypeName(BLOCK_DRIVE_DISTANCE), "BLOCK_DRIVE_DISTANCE");
  EXPECT_EQ(Block::getBlockTypeName(BLOCK_SERVO), "BLOCK_SERVO");
  for (int value : {0, 1, 24, 25, 49, 255})
    EXPECT_EQ(Block::getBlockTypeName(static_cast<BlockType>(value)), "BLOCK_UNDEFINED") << value;
  // Every kind text leads to a name spelled after its enumerator, except the one without.
  for (int value = 26; value <= 48; ++value) {
    const std::string name = Block::getBlockTypeName(static_cast<BlockType>(value));
    EXPECT_EQ(name.rfind("BLOCK_", 0), 0u) << value;
    EXPECT_NE(name, "BLOCK_UNDEFINED") << value;
  }
}

TEST(BlockTest, IdsWrapPastZeroAndStickToTheirBlock) {
  EXPECT_EQ(&Block::currentBlockId, &::currentBlockId);
  currentBlockId = 65534;
  EXPECT_EQ(Block::defineBlockId(), 65535);
  EXPECT_EQ(Block::defineBlockId(), 1);  // 0 is skipped
  EXPECT_EQ(currentBlockId.load(), 1);
  EXPECT_EQ(Block::defineBlockId(), 2);

  BlockEye block(BLOCK_EYE_POSITION);
  EXPECT_EQ(block.type, BLOCK_EYE_POSITION);
  const uint16_t id = block.id();
  EXPECT_EQ(id, 3);
  EXPECT_EQ(block.id(), id);
  EXPECT_EQ(currentBlockId.load(), 3);  // the second call drew nothing

  BlockEye other;
  EXPECT_EQ(other.type, BLOCK_EYE_ANIMATION);
  EXPECT_EQ(other.id(), 4);
}

}  // namespace
