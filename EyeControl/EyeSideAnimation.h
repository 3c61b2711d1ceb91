// One eye's keyframe track and the per-frame motion arithmetic.
#pragma once

#include <cstdint>
#include <vector>

#include "moveEvent.h"

class EyeSideAnimation {
 public:
  // Computes the next frame from the eye's current values into the three output
  // pairs (xy: x, y; scale: x, y; lid: top, bottom) and advances the track.
  // False, with no output written, once the track has ended.
  bool calculateXY(short x, short y, short* xy, float scaleX, float scaleY, float* scale,
                   short lidTop, short lidBot, short* lid);
  // Moves to the next event; false (and no change) on the last one.
  bool nextEvent();
  // Rewinds every event and the track to the start.
  void clearAnimationSide();

  uint16_t current_event = 0;
  bool finished = false;
  std::vector<moveEvent> events;
};
