#include "BlockEye.h"

#include "EyeAnimation.h"

BlockEye::BlockEye(BlockType type) : Block(type) {}

BlockEye::~BlockEye() = default;
