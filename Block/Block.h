// Block kinds of the robot's block-programming language and block identifiers.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

enum BlockType : uint8_t {
  BLOCK_UNDEFINED = 0,
  BLOCK_START_ANIMATION = 25,
  BLOCK_DRIVE_DISTANCE = 26,
  BLOCK_DRIVE_XY = 27,
  BLOCK_DRIVE_ROTATE = 28,
  BLOCK_DRIVE_ROTATE_LEFT = 29,
  BLOCK_DRIVE_ROTATE_RIGHT = 30,
  BLOCK_ARM_SET_ANGLE = 31,
  BLOCK_EYE_ANIMATION = 32,
  BLOCK_EYE_POSITION = 33,
  BLOCK_EYE_TYPE = 34,
  BLOCK_EYE_BACKGROUND = 35,
  BLOCK_SOUND = 36,
  BLOCK_LED = 37,
  BLOCK_LED_ANIMATION = 38,
  BLOCK_LED_ANIMATION_PART = 39,
  BLOCK_DELAY = 40,
  BLOCK_SPEAK = 41,
  BLOCK_AI_LOOK = 42,
  BLOCK_GPIO_SET = 43,
  BLOCK_GPIO_WAIT = 44,
  BLOCK_GPIO_IF = 45,
  BLOCK_IF = 46,
  BLOCK_REPEAT = 47,
  BLOCK_SERVO = 48,
};

// Process-wide source of block ids; wraps from 65535 to 0 (0 is never handed out).
extern std::atomic<uint16_t> currentBlockId;

class Block {
 public:
  explicit Block(BlockType type = BLOCK_UNDEFINED);
  virtual ~Block();

  // Kind text ("eye_type", ...) -> kind; BLOCK_UNDEFINED for any other text.
  static BlockType getBlockType(std::string kind);
  // Display name of a kind; "BLOCK_UNDEFINED" outside 26..48.
  static std::string getBlockTypeName(BlockType type);
  // A fresh non-zero id from currentBlockId.
  static uint16_t defineBlockId();
  // This block's id, drawn on first use.
  uint16_t id();

  // The same counter as ::currentBlockId, reachable through the class too.
  static std::atomic<uint16_t>& currentBlockId;

  BlockType type;

 protected:
  uint16_t blockId = 0;
};
