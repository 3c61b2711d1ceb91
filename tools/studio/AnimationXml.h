// An animation as the editor holds it, and how it is written into the catalogue text.
#pragma once

#include <memory>
#include <string>
#include <vector>

class EyeAnimation;

namespace studio {

// One event with the values as written in the file (times before frame rounding).
struct EventDraft {
  int x = 555, y = 555, timeMs = 0, wait = 0;
  double scaleX = 555, scaleY = 555;
  int lidTopY = 0, lidBotY = 240, topLidIndex = 0, botLidIndex = 1, rotateAngle = 0, ellipseH = 0;
};

struct AnimationDraft {
  unsigned id = 0;
  std::string name;
  std::vector<std::string> categories;  // short names ("HAPPINESS")
  std::vector<EventDraft> left, right;
};

// The animation the player would build from the draft's file text.
std::shared_ptr<EyeAnimation> buildAnimation(const AnimationDraft& draft);

// The draft read back from a loaded animation.
AnimationDraft draftOf(const EyeAnimation& animation);

// The draft as one "Animation" element, indented for a "List" child.
std::string animationElement(const AnimationDraft& draft);

// `text` (a whole animation catalogue) with the animation named `replaces` swapped for
// `draft`, or `draft` added before the end of the list when `replaces` is empty. Every
// other byte of the file stays. Empty with `error` set when the text cannot take it.
std::string spliceAnimation(const std::string& text, const std::string& replaces,
                            const AnimationDraft& draft, std::string& error);

}  // namespace studio
