#include "EyeSideAnimation.h"

#include <cmath>
#include <cstdint>

#include "Truncate.h"

using eyemath::toShort;

namespace {

constexpr double kDegreesPerRadian = 57.29577951308232;
constexpr double kPi = 3.141592653589793;

// Polar angle (radians) of the event's target about the eye centre.
double targetAngle(const moveEvent& e) {
  return std::atan2(static_cast<double>(e.y - EYE_CENTRE), static_cast<double>(e.x - EYE_CENTRE));
}

// Distance of the event's target from the eye centre: the horizontal semi-axis.
short targetRadius(const moveEvent& e) {
  const int32_t dx = e.x - EYE_CENTRE;
  const int32_t dy = e.y - EYE_CENTRE;
  // 32-bit sum; wraps (rather than overflowing) for targets far off the panel.
  const auto sum = static_cast<int32_t>(static_cast<uint32_t>(dx) * static_cast<uint32_t>(dx) +
                                        static_cast<uint32_t>(dy) * static_cast<uint32_t>(dy));
  return toShort(std::sqrt(static_cast<double>(sum)));
}

// Point of the ellipse (horizontal semi-axis r, vertical ellipseH) at `degrees`.
void ellipsePoint(short r, short ellipseH, float degrees, short& x, short& y) {
  const double a = static_cast<double>(degrees) * kPi / 180.0;
  x = toShort(std::fma(static_cast<double>(r), std::cos(a), 120.0));
  y = toShort(std::fma(static_cast<double>(ellipseH), std::sin(a), 120.0));
}

bool isKeepPosition(const moveEvent& e) {
  return e.x == KEEP_CURRENT && e.y == KEEP_CURRENT;
}

bool isKeepScale(const moveEvent& e) {
  return e.scale_x == static_cast<float>(KEEP_CURRENT) &&
         e.scale_y == static_cast<float>(KEEP_CURRENT);
}

}  // namespace

bool EyeSideAnimation::calculateXY(short x, short y, short* xy, float scaleX, float scaleY,
                                   float* scale, short lidTop, short lidBot, short* lid) {
  moveEvent& e = events[current_event];
  if (e.finished) {
    // The frame after the last event ended.
    finished = true;
    return false;
  }

  const short rest = static_cast<short>(e.restFrameCount());
  short newX;
  short newY;
  if (rest > 1 && e.moving) {
    // Cover the remaining distance in equal parts of the frames left, from where the
    // eye really is now.
    const float n = static_cast<float>(rest);
    if (e.rotate_angle != 0) {
      const double t = targetAngle(e);
      e.angle = (static_cast<float>(e.rotate_angle) - e.angle) / n + e.angle;
      const short r = targetRadius(e);
      const float a = static_cast<float>(t * kDegreesPerRadian) + e.angle;
      ellipsePoint(r, e.ellipse_h, a, newX, newY);
    } else if (isKeepPosition(e)) {
      newX = x;
      newY = y;
    } else {
      newX = static_cast<short>(x + (e.x - x) / rest);
      newY = static_cast<short>(y + (e.y - y) / rest);
    }
    if (isKeepScale(e)) {
      scale[0] = scaleX;
      scale[1] = scaleY;
    } else {
      scale[0] = (e.scale_x - scaleX) / n + scaleX;
      scale[1] = scaleY + (e.scale_y - scaleY) / n;
    }
    lid[0] = static_cast<short>(lidTop + (e.lid_top_y - lidTop) / rest);
    lid[1] = static_cast<short>(lidBot + (e.lid_bot_y - lidBot) / rest);
  } else {
    // Last move frame or holding: exactly on the targets.
    if (e.rotate_angle != 0) {
      const double t = targetAngle(e);
      const short r = targetRadius(e);
      e.angle = static_cast<float>(e.rotate_angle);
      const float a =
          static_cast<float>(e.rotate_angle) + static_cast<float>(t * kDegreesPerRadian);
      ellipsePoint(r, e.ellipse_h, a, newX, newY);
    } else if (isKeepPosition(e)) {
      newX = x;
      newY = y;
    } else {
      newX = e.x;
      newY = e.y;
    }
    if (isKeepScale(e)) {
      scale[0] = scaleX;
      scale[1] = scaleY;
    } else {
      scale[0] = e.scale_x;
      scale[1] = e.scale_y;
    }
    lid[0] = e.lid_top_y;
    lid[1] = e.lid_bot_y;
  }
  xy[0] = newX;
  xy[1] = newY;

  e.frameProcessed();
  if (e.finished) nextEvent();  // stays on the last event; the next call ends the track
  return true;
}

bool EyeSideAnimation::nextEvent() {
  if (events.empty() || static_cast<size_t>(current_event) + 1 >= events.size()) return false;
  ++current_event;
  return true;
}

void EyeSideAnimation::clearAnimationSide() {
  for (moveEvent& e : events) {
    e.finished = false;
    e.moving = true;
    e.elapsed_ms = 0;
    e.angle = 0.0f;
  }
  current_event = 0;
  finished = false;
}
