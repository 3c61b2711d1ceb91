#include "Block.h"

#include <utility>

std::atomic<uint16_t> currentBlockId{0};
std::atomic<uint16_t>& Block::currentBlockId = ::currentBlockId;

Block::Block(BlockType type) : type(type) {}

Block::~Block() = default;

BlockType Block::getBlockType(std::string kind) {
  // The texts are the block language's own; "eye_animations" and "delay_ms" differ
  // from the kinds' names and must stay so.
  static const std::pair<const char*, BlockType> kKinds[] = {
      {"start_animation", BLOCK_START_ANIMATION},
      {"drive_distance", BLOCK_DRIVE_DISTANCE},
      {"drive_xy", BLOCK_DRIVE_XY},
      {"drive_rotate", BLOCK_DRIVE_ROTATE},
      {"drive_rotate_left", BLOCK_DRIVE_ROTATE_LEFT},
      {"drive_rotate_right", BLOCK_DRIVE_ROTATE_RIGHT},
      {"arm_set_angle", BLOCK_ARM_SET_ANGLE},
      {"led", BLOCK_LED},
      {"eye_animations", BLOCK_EYE_ANIMATION},
      {"eye_position", BLOCK_EYE_POSITION},
      {"eye_type", BLOCK_EYE_TYPE},
      {"eye_background", BLOCK_EYE_BACKGROUND},
      {"sound", BLOCK_SOUND},
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
  for (const auto& entry : kKinds)
    if (kind == entry.first) return entry.second;
  return BLOCK_UNDEFINED;
}

std::string Block::getBlockTypeName(BlockType type) {
  // BLOCK_START_ANIMATION has no name of its own and reads as undefined.
  switch (type) {
    case BLOCK_DRIVE_DISTANCE:
      return "BLOCK_DRIVE_DISTANCE";
    case BLOCK_DRIVE_XY:
      return "BLOCK_DRIVE_XY";
    case BLOCK_DRIVE_ROTATE:
      return "BLOCK_DRIVE_ROTATE";
    case BLOCK_DRIVE_ROTATE_LEFT:
      return "BLOCK_DRIVE_ROTATE_LEFT";
    case BLOCK_DRIVE_ROTATE_RIGHT:
      return "BLOCK_DRIVE_ROTATE_RIGHT";
    case BLOCK_ARM_SET_ANGLE:
      return "BLOCK_ARM_SET_ANGLE";
    case BLOCK_EYE_ANIMATION:
      return "BLOCK_EYE_ANIMATION";
    case BLOCK_EYE_POSITION:
      return "BLOCK_EYE_POSITION";
    case BLOCK_EYE_TYPE:
      return "BLOCK_EYE_TYPE";
    case BLOCK_EYE_BACKGROUND:
      return "BLOCK_EYE_BACKGROUND";
    case BLOCK_SOUND:
      return "BLOCK_SOUND";
    case BLOCK_LED:
      return "BLOCK_LED";
    case BLOCK_LED_ANIMATION:
      return "BLOCK_LED_ANIMATION";
    case BLOCK_LED_ANIMATION_PART:
      return "BLOCK_LED_ANIMATION_PART";
    case BLOCK_DELAY:
      return "BLOCK_DELAY";
    case BLOCK_SPEAK:
      return "BLOCK_SPEAK";
    case BLOCK_AI_LOOK:
      return "BLOCK_AI_LOOK";
    case BLOCK_GPIO_SET:
      return "BLOCK_GPIO_SET";
    case BLOCK_GPIO_WAIT:
      return "BLOCK_GPIO_WAIT";
    case BLOCK_GPIO_IF:
      return "BLOCK_GPIO_IF";
    case BLOCK_IF:
      return "BLOCK_IF";
    case BLOCK_REPEAT:
      return "BLOCK_REPEAT";
    case BLOCK_SERVO:
      return "BLOCK_SERVO";
    default:
      return "BLOCK_UNDEFINED";
  }
}

uint16_t Block::defineBlockId() {
  // The id is read back rather than taken from the increment; two callers at the
  // same moment may share one. 0 means "no id", so the wrap skips it.
  currentBlockId.fetch_add(1, std::memory_order_acq_rel);
  uint16_t id = currentBlockId.load(std::memory_order_acquire);
  if (id == 0) {
    currentBlockId.fetch_add(1, std::memory_order_acq_rel);
    id = currentBlockId.load(std::memory_order_acquire);
  }
  return id;
}

uint16_t Block::id() {
  if (blockId == 0) blockId = defineBlockId();
  return blockId;
}
