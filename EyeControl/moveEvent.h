// One keyframe of one eye's animation track.
#pragma once

#include <cstdint>

constexpr int16_t FRAME_PERIOD_MS = 40;  // 25 frames a second
constexpr int16_t EYE_CENTRE = 120;      // panel centre, both axes
constexpr int16_t KEEP_CURRENT = 555;    // x = y = 555 (or scales 555.0): stay where you are

class moveEvent {
 public:
  moveEvent(short x, short y, short timeMs, short wait, float scaleX, float scaleY, double frameMs,
            short lidTopY, short lidBotY, short topLidIndex, short botLidIndex, short rotateAngle,
            short ellipseH);

  // Frames left in the move part: (move_ms - elapsed_ms) / frame_ms, 0 when frame_ms is 0.
  int restFrameCount();
  // Advances the event by one frame; true once the event (move and hold) has ended.
  bool frameProcessed();

  const char* iris_name;  // iris image to switch to, or null
  short x;
  short y;
  float scale_x;
  float scale_y;
  short lid_top_y;
  short lid_bot_y;
  short top_lid_index;
  short bot_lid_index;
  short rotate_angle;  // degrees; 0 = straight move
  short ellipse_h;     // vertical semi-axis of the turn
  float angle;         // rotation reached so far
  short frame_ms;
  bool finished;
  bool moving;
  int elapsed_ms;
  short move_ms;
  short wait_ms;
};
