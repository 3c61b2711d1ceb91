#include "Timeline.h"

#include "EyeControl.h"

namespace studio {

EyePose EyePose::of(const Eyes& eye) {
  return {eye.getIrisX(),  eye.getIrisY(),   eye.getScaleX(),
          eye.getScaleY(), eye.getTopLidY(), eye.getBottomLidY()};
}

namespace {

// Advances one track by a frame the way the player does; false once it has ended.
bool advance(EyeSideAnimation& track, TrackFrame& out) {
  if (track.events.empty() || track.finished) return false;
  const int event = track.current_event;
  const moveEvent& current = track.events[track.current_event];
  short xy[2];
  float scale[2];
  short lid[2];
  EyePose& p = out.pose;
  if (!track.calculateXY(p.x, p.y, xy, p.scaleX, p.scaleY, scale, p.topLidY, p.bottomLidY, lid))
    return false;
  out.event = event;
  out.topLidIndex = current.top_lid_index;
  out.bottomLidIndex = current.bot_lid_index;
  p = {xy[0], xy[1], scale[0], scale[1], lid[0], lid[1]};
  return true;
}

}  // namespace

std::vector<TimelineFrame> buildTimeline(const EyeAnimation& animation, EyePose left,
                                         EyePose right) {
  EyeAnimation copy(animation);
  copy.ClearAnimation();
  std::vector<TimelineFrame> frames;
  TimelineFrame frame;
  frame.left.pose = left;
  frame.right.pose = right;
  for (;;) {
    const bool leftMoved = advance(copy.left, frame.left);
    const bool rightMoved = advance(copy.right, frame.right);
    if (!leftMoved) frame.left.event = -1;
    if (!rightMoved) frame.right.event = -1;
    if (!leftMoved && !rightMoved) break;
    frames.push_back(frame);
  }
  return frames;
}

void pointLidColours(Eyes& eye, unsigned short top, unsigned short bottom) {
  eye.topLidColor = EyeControl::lid_images[top].color;
  eye.bottomLidColor = EyeControl::lid_images[bottom].color;
}

}  // namespace studio
