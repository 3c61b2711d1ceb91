#include "moveEvent.h"

#include <cmath>
#include <cstdint>

#include "Truncate.h"

using eyemath::toShort;

moveEvent::moveEvent(short x, short y, short timeMs, short wait, float scaleX, float scaleY,
                     double frameMs, short lidTopY, short lidBotY, short topLidIndex,
                     short botLidIndex, short rotateAngle, short ellipseH)
    : iris_name(nullptr),
      x(x),
      y(y),
      scale_x(scaleX),
      scale_y(scaleY),
      lid_top_y(lidTopY),
      lid_bot_y(lidBotY),
      top_lid_index(topLidIndex),
      bot_lid_index(botLidIndex),
      rotate_angle(rotateAngle),
      ellipse_h(ellipseH),
      angle(0.0f),
      frame_ms(toShort(frameMs)),
      finished(false),
      moving(true),
      elapsed_ms(0),
      // Whole frames, halves rounded up: 60 ms at 40 ms a frame plays 80 ms.
      move_ms(toShort(std::round(timeMs / frameMs) * frameMs)),
      wait_ms(toShort(std::round(wait / frameMs) * frameMs)) {}

int moveEvent::restFrameCount() {
  if (frame_ms == 0) return 0;
  return (move_ms - elapsed_ms) / frame_ms;
}

bool moveEvent::frameProcessed() {
  if (finished) return true;
  elapsed_ms += frame_ms;
  const int e1 = elapsed_ms;
  if (e1 < move_ms) {
    // Fewer than two frames of move left: snap from now on so the move ends exactly
    // on its target.
    if (frame_ms > move_ms - (e1 + frame_ms)) moving = false;
    return false;
  }
  if (e1 < move_ms + wait_ms) return false;
  finished = true;
  moving = true;
  elapsed_ms = 0;
  return true;
}
