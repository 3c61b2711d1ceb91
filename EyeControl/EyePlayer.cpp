// The animation player and the eye-block worker of EyeControl.
#include <spdlog/spdlog.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "EyeControl.h"
#include "EyeEvent.h"
#include "Helper.h"
#include "PlayGate.h"

namespace {

// Sleeps the whole interval even when signals interrupt it; other errors end the sleep.
void sleepFully(time_t seconds, long nanoseconds) {
  timespec request{seconds, nanoseconds};
  timespec left{0, 0};
  while (nanosleep(&request, &left) == -1 && errno == EINTR) request = left;
}

// active_animation is handed between the caller of Abort/setAnimation and the worker
// without a lock; the atomic shared_ptr accessors keep the pointer itself consistent.
std::shared_ptr<EyeAnimation> loadActive() {
  return std::atomic_load(&EyeControl::active_animation);
}

void storeActive(std::shared_ptr<EyeAnimation> animation) {
  std::atomic_store(&EyeControl::active_animation, std::move(animation));
}

// Switches the shown iris image when the track's current event names another one.
void switchIrisImage(const EyeSideAnimation& track, VContent& shown) {
  const char* name = track.events[track.current_event].iris_name;
  if (name == nullptr || name[0] == '\0') return;
  {
    PlayGate::Reading reading;
    if (shown.path == name) return;
  }
  // Decoded first; the image it replaces is freed after the gate.
  VContent image = VContent::getImage(name, true, true);
  PlayGate::Change change;
  std::swap(shown, image);
}

// Where an eye-position block puts one eye: scale 1, lids open, no range check.
void placeEye(bool left, const EyePosition& position) {
  EyeControl::SetEyePosition(left, position.x, position.y, 1.0f, 1.0f, 0, 240);
}

// Applies the side byte of a record met while the block addresses both eyes.
void placeBySide(const EyePosition& position) {
  if (position.side == EyeSide::LEFT)
    placeEye(true, position);
  else if (position.side == EyeSide::RIGHT)
    placeEye(false, position);
}

void runPositionBlock(const BlockEye& block) {
  const auto& positions = block.positions;
  if (positions.empty()) return;
  switch (block.side) {
    case EyeSide::LEFT:
      // The record's own side is not looked at.
      placeEye(true, positions[0]);
      break;
    case EyeSide::RIGHT:
      placeEye(false, positions[0]);
      break;
    case EyeSide::BOTH:
      if (positions[0].side == EyeSide::BOTH) {
        placeEye(true, positions[0]);
        placeEye(false, positions[0]);
        break;
      }
      placeBySide(positions[0]);
      // Only a second record is ever looked at; later ones are ignored.
      if (positions.size() > 1) placeBySide(positions[1]);
      break;
    default:
      break;
  }
}

}  // namespace

std::shared_ptr<EyeAnimation> EyeControl::getAnimation(const std::string& name) {
  PlayGate::Reading reading;  // the catalogue may be read anew meanwhile
  for (const auto& animation : eye_animations)
    if (animation && animation->name == name) return animation;
  return {};
}

std::shared_ptr<EyeAnimation> EyeControl::getAnimation(std::string_view name) {
  return getAnimation(std::string(name));
}

std::shared_ptr<EyeAnimation> EyeControl::getAnimation(const char* name) {
  if (name == nullptr) return {};
  return getAnimation(std::string(name));
}

int8_t EyeControl::setAnimation(unsigned short id, std::string_view name) {
  PlayGate::applicationActivity();
  Abort();
  is_processing = true;
  if (name.data() == nullptr && !name.empty())
    throw std::logic_error("basic_string: construction from null is not valid");
  storeActive(getAnimation(std::string(name.data(), name.size())));
  if (!loadActive()) {
    is_processing = false;
    return -1;
  }
  active_type = BLOCK_EYE_ANIMATION;
  std::thread(&EyeControl::processEyeAnimation, id).detach();
  return 0;
}

bool EyeControl::stepAnimationFrame(EyeAnimation& animation) {
  EyeSideAnimation& left = animation.left;
  EyeSideAnimation& right = animation.right;

  uint8_t leftResult = 2;
  if (!left.events.empty() && !left.finished) {
    switchIrisImage(left, default_iris.left);
    leftResult = Left_Eye.setAnimationFrame(&left, &default_iris.left, &default_background.left);
  } else if (right.events.empty() || right.finished) {
    // Unconditional: an abort asked for during this frame is overwritten.
    animation.state = AnimationState::COMPLETED;
    return false;
  }

  uint8_t rightResult = 2;
  if (!right.events.empty() && !right.finished) {
    switchIrisImage(right, default_iris.right);
    rightResult =
        Right_Eye.setAnimationFrame(&right, &default_iris.right, &default_background.right);
  }

  if (leftResult == 2 && rightResult == 2) {
    animation.state = AnimationState::COMPLETED;
    return false;
  }
  return true;
}

int8_t EyeControl::processEyeAnimation(unsigned short id) {
  // One reference for the whole play: active_animation is released before the
  // listeners run, and a new play may replace it while they do.
  std::shared_ptr<EyeAnimation> animation = loadActive();
  if (!animation) return -1;

  animation->ClearAnimation();
  animation->state = AnimationState::PLAYING;
  while (animation->state == AnimationState::PLAYING) {
    const int64_t t0 = Helper::clock_ms();
    if (!stepAnimationFrame(*animation)) continue;

    // The deadline is one millisecond short of the frame period, leaving room for
    // the loop's own work.
    const int64_t remaining = (t0 + FRAME_PERIOD_MS - 1) - Helper::clock_ms();
    if (remaining >= 1)
      sleepFully(static_cast<time_t>(remaining / 1000),
                 static_cast<long>(remaining % 1000) * 1000000L);
  }

  const AnimationState finalState = animation->state;
  storeActive(nullptr);
  is_processing = false;
  if (finalState == AnimationState::ABORTING)
    EyeEvent::EyeAbort(id);
  else
    EyeEvent::EyeComplete(id);
  return 0;
}

void EyeControl::Abort() {
  if (!is_processing) return;
  if (active_type == BLOCK_EYE_ANIMATION) {
    // Eye blocks of other kinds are only waited for.
    if (auto animation = loadActive()) animation->state = AnimationState::ABORTING;
  }
  while (is_processing) {
    sleepFully(0, 5000000L);
    // A worker that had not begun yet clears the request when it starts playing, and an
    // animation block installs its animation only then: ask again. A play that has
    // already completed stays completed.
    if (active_type != BLOCK_EYE_ANIMATION) continue;
    if (auto animation = loadActive())
      for (AnimationState from : {AnimationState::IDLE, AnimationState::PLAYING})
        if (animation->state.compare_exchange_strong(from, AnimationState::ABORTING)) break;
  }
}

int8_t EyeControl::ProcessEyeBlock(std::shared_ptr<BlockEye> block) {
  PlayGate::blockStarts(*block);
  Abort();
  is_processing = true;
  // Animation blocks keep the active animation: an empty one replays it.
  if (block->type != BLOCK_EYE_ANIMATION && loadActive()) storeActive(nullptr);
  active_type = block->type;
  std::thread(&EyeControl::ProcessEyes, block).detach();
  return 0;
}

void EyeControl::ProcessEyes(std::shared_ptr<BlockEye> block) {
  const uint16_t id = block->id();
  EyeEvent::EyeStart(id);

  switch (block->type) {
    case BLOCK_EYE_ANIMATION:
      if (block->animation) storeActive(block->animation);
      // The player clears is_processing and tells the listeners itself.
      processEyeAnimation(id);
      return;
    case BLOCK_EYE_POSITION:
      runPositionBlock(*block);
      break;
    case BLOCK_EYE_TYPE: {
      // A failed lookup still installs the empty part: an unknown style blanks the iris.
      EyePart part;
      if (getIris(static_cast<IrisShape>(block->content), block->style, part) < 0)
        spdlog::error("EyeControl Type Block getIris failed! Type:{} Style:{}",
                      static_cast<int>(block->content), block->style);
      setIris(part, block->side);
      break;
    }
    case BLOCK_EYE_BACKGROUND: {
      EyePart part;
      if (getBackground(static_cast<EyeContentType>(block->content), block->style, part) < 0)
        spdlog::error("EyeControl Background Block getBackground failed! Type:{} Style:{}",
                      static_cast<int>(block->content), block->style);
      setBackground(part, block->side);
      break;
    }
    default:
      // Other kinds are not eye work: no completion, and is_processing stays set.
      return;
  }

  is_processing = false;
  EyeEvent::EyeComplete(id);
}
