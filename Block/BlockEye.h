// The eye block: play an animation, place the irises, change iris or background.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Block.h"
#include "EyeSide.h"

class EyeAnimation;

// Where an eye-position block puts the iris of one side (6 bytes, fixed layout).
struct EyePosition {
  EyeSide side = EyeSide::BOTH;
  uint8_t unused = 0;
  int16_t x = 0;
  int16_t y = 0;
};
static_assert(sizeof(EyePosition) == 6, "EyePosition is a 6-byte record");

class BlockEye : public Block {
 public:
  explicit BlockEye(BlockType type = BLOCK_EYE_ANIMATION);
  ~BlockEye() override;

  std::shared_ptr<EyeAnimation> animation;  // eye-animation blocks; may be empty
  uint8_t content = 0;                      // IrisShape or EyeContentType
  std::string style;                        // iris or background style name
  EyeSide side = EyeSide::BOTH;
  std::vector<EyePosition> positions;       // eye-position blocks
};
