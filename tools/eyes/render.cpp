#include "render.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <tuple>

#include "EyeControl.h"
#include "EyeIdle.h"
#include "LcdControl.h"
#include "catalogue/CatalogueRules.h"
#include "look.h"

namespace eyes {
namespace {

// Both eyes as brought up, to start each rendering from rest.
std::optional<std::array<EyePose, 2>> restPose;

// "NAME:STYLE" -> (value of NAME in `names`, STYLE).
template <typename Enum>
std::optional<std::pair<Enum, std::string>> parseChoice(const std::string& text,
                                                        const std::vector<std::string>& names) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) return std::nullopt;
  for (size_t v = 0; v < names.size(); ++v)
    if (names[v] == text.substr(0, colon))
      return std::make_pair(static_cast<Enum>(v), text.substr(colon + 1));
  return std::nullopt;
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::vector<std::string> colorNames() {
  std::vector<std::string> names;
  for (int c = 0; c < static_cast<int>(ColorCode::COUNT); ++c)
    names.push_back(Color::getColorName(static_cast<ColorCode>(c)));
  return names;
}

// Appends one frame per step of the player until `animation` has ended.
void playFrames(EyeAnimation& animation, std::vector<Frame>& frames) {
  animation.ClearAnimation();
  animation.state = AnimationState::PLAYING;
  uint64_t written[2] = {LcdControl::framesWritten(0), LcdControl::framesWritten(1)};
  while (EyeControl::stepAnimationFrame(animation)) {
    Frame frame = currentFrame();
    for (uint8_t panel = 0; panel < 2; ++panel) {
      const uint64_t now = LcdControl::framesWritten(panel);
      frame.drawn[panel] = now != written[panel];
      written[panel] = now;
    }
    frames.push_back(std::move(frame));
  }
}

void holdFrames(std::vector<Frame>& frames, size_t count) {
  if (count == 0) return;
  const Frame held = currentFrame();
  frames.insert(frames.end(), count, held);
}

}  // namespace

BringUp bringUpEyes(const std::string& configDir, const std::string& iris,
                    const std::string& background) {
  Look wanted = settingsLook();
  if (!iris.empty()) {
    auto parsed = parseChoice<IrisShape>(iris, catalogue::irisShapeNames());
    if (!parsed)
      return {"--iris wants SHAPE:STYLE with SHAPE one of " + joined(catalogue::irisShapeNames()) +
                  ", got \"" + iris + "\"",
              true};
    std::tie(wanted.irisShape, wanted.irisStyle) = *parsed;
  }
  if (!background.empty()) {
    auto parsed = parseChoice<EyeContentType>(background, catalogue::contentKindNames());
    if (!parsed)
      return {"--background wants COLOR:STYLE or IMAGE:STYLE, got \"" + background + "\"", true};
    std::tie(wanted.backgroundKind, wanted.backgroundStyle) = *parsed;
    // The library paints an unknown colour name black; asked for by name, that is a slip.
    const auto colors = colorNames();
    if (wanted.backgroundKind == EyeContentType::COLOR &&
        std::find(colors.begin(), colors.end(), wanted.backgroundStyle) == colors.end())
      return {"unknown colour \"" + wanted.backgroundStyle + "\"; colours are " + joined(colors),
              true};
  }
  const Look look = availableLook(configDir, wanted, !iris.empty(), !background.empty());

  // Offline: frames stay in memory whatever the environment says.
  setenv("EYE_LCD", "memory", 1);
  try {
    const int8_t status = EyeControl::initFrom(configDir, look.irisShape, look.irisStyle,
                                               look.backgroundKind, look.backgroundStyle);
    if (status == -1) return {"cannot read the catalogues in " + configDir};
    if (status < 0) return {"the panels did not come up"};
  } catch (const std::exception& e) {
    return {"the catalogues in " + configDir + " stop the library (" + e.what() +
            "); run `eyes lint " + configDir + "`"};
  }
  // A failed lookup leaves an image without pixels, which nothing can draw.
  if (EyeControl::default_iris.left.frames.empty() || EyeControl::default_iris.right.frames.empty())
    return {"the iris " + IrisType::getName(look.irisShape) + ":" + look.irisStyle + " is not in " +
                configDir + " or its image does not load",
            !iris.empty()};
  if (EyeControl::default_background.left.frames.empty() ||
      EyeControl::default_background.right.frames.empty())
    return {"the background " + BackgroundType::getName(look.backgroundKind) + ":" +
                look.backgroundStyle + " is not in " + configDir + " or its image does not load",
            !background.empty()};
  restPose = {EyeControl::Left_Eye.pose(), EyeControl::Right_Eye.pose()};
  return {};
}

void restEyes() {
  if (!restPose) return;
  EyeControl::Left_Eye.setPose((*restPose)[0]);
  EyeControl::Right_Eye.setPose((*restPose)[1]);
  EyeControl::SetFrames(EyeSide::BOTH);
}

Frame currentFrame() {
  return Frame{{LcdControl::lastFrame(0), LcdControl::lastFrame(1)}, {false, false}};
}

std::optional<std::vector<Frame>> renderAnimation(const std::string& name) {
  std::shared_ptr<EyeAnimation> animation = EyeControl::getAnimation(name);
  if (!animation || !restPose) return std::nullopt;
  restEyes();

  std::vector<Frame> frames;
  playFrames(*animation, frames);
  return frames;
}

std::vector<Frame> renderIdle(int seconds, uint64_t seed) {
  std::vector<Frame> frames;
  if (!restPose || seconds <= 0) return frames;
  restEyes();
  const size_t total = static_cast<size_t>(seconds) * 1000 / kFrameMs;
  frames.reserve(total);
  for (const IdleStep& step :
       IdleMotion::generate(IdleSettings{}, seed, EyeIdle::currentGaze(), seconds)) {
    // The panels keep their last picture through the still time.
    holdFrames(frames, static_cast<size_t>(step.delayMs / kFrameMs));
    playFrames(*step.animation, frames);
  }
  // The last animation may run past the end; the still time after it is held.
  if (frames.size() > total) frames.resize(total);
  holdFrames(frames, total - frames.size());
  return frames;
}

int animationFrameCount(const EyeAnimation& animation) {
  auto trackFrames = [](const EyeSideAnimation& track) {
    int frames = 0;
    for (const moveEvent& event : track.events)
      frames += std::max(1, event.move_ms / kFrameMs + event.wait_ms / kFrameMs);
    return frames;
  };
  return std::max(trackFrames(animation.left), trackFrames(animation.right));
}

}  // namespace eyes
