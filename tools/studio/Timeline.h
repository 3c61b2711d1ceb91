// Frame-by-frame preview of an animation, for pausing, stepping and scrubbing.
#pragma once

#include <vector>

#include "EyeAnimation.h"
#include "Eyes.h"

namespace studio {

// Where an eye's iris and lids are.
struct EyePose {
  short x = 0;
  short y = 0;
  float scaleX = 1.0f;
  float scaleY = 1.0f;
  short topLidY = 0;
  short bottomLidY = 240;

  static EyePose of(const Eyes& eye);
};

// One track in one frame. `event` is -1 once the track has ended (the eye keeps
// its last pose).
struct TrackFrame {
  int event = -1;
  EyePose pose;
  short topLidIndex = -1;
  short bottomLidIndex = -1;
};

struct TimelineFrame {
  TrackFrame left;
  TrackFrame right;
};

// Every frame the player would draw for `animation`, starting from the given poses.
// The animation itself is not touched.
std::vector<TimelineFrame> buildTimeline(const EyeAnimation& animation, EyePose left,
                                         EyePose right);

// Points the eye's lid fill colours at the catalogue entries `top` and `bottom`
// (indexes below the catalogue size). The lid commands change only the images, so
// this goes first whenever lids are chosen outside an animation, and after the lid
// catalogue was read anew, when the old colours are gone.
void pointLidColours(Eyes& eye, unsigned short top, unsigned short bottom);

}  // namespace studio
