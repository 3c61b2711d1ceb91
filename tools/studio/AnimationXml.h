// An animation as the editor holds it, and how it is written into the catalogue text.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

class EyeAnimation;

namespace studio {

// One event as written in the file (times before frame rounding): a value per
// attribute, in the order of catalogue::eventRule(), which is also moveEvent's.
struct EventDraft {
  std::array<double, 12> values{};
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
