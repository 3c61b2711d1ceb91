#include "Eyes.h"

#include <time.h>

#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>

#include "FrameComposer.h"
#include "LcdControl.h"
#include "PlayGate.h"

EyeLidPart::EyeLidPart() = default;

EyeLidPart::EyeLidPart(const EyeLidPart& other)
    : name(other.name), id(other.id), content(other.content) {
  std::memcpy(color, other.color, sizeof color);
}

// The image has no move of its own: only the name is moved, the rest copied.
EyeLidPart::EyeLidPart(EyeLidPart&& other) noexcept
    : name(std::move(other.name)), id(other.id), content(other.content) {
  std::memcpy(color, other.color, sizeof color);
}

EyeLidPart& EyeLidPart::operator=(const EyeLidPart& other) {
  if (this != &other) {
    name = other.name;
    id = other.id;
    content = other.content;
    std::memcpy(color, other.color, sizeof color);
  }
  return *this;
}

EyeLidPart::~EyeLidPart() = default;

namespace {

constexpr int kSize = Eyes::kSize;

// One millisecond, slept to the end even when a signal interrupts it.
void sleepOneMs() {
  timespec request{0, 1000000};
  timespec remaining{};
  while (nanosleep(&request, &remaining) == -1 && errno == EINTR) request = remaining;
}

// The frame shown now, or null when the image has none to show.
const std::vector<uint8_t>* currentFrame(const VContent* image) {
  if (image == nullptr || image->frameIndex >= image->frames.size()) return nullptr;
  return &image->frames[image->frameIndex];
}

// Blends a lid colour (4 bytes) over the pixel's colour bytes.
void blendOver(unsigned char* pixel, const unsigned char* lidColour) {
  unsigned char sample[4];
  std::memcpy(sample, lidColour, 4);
  Eyes::removeAlpha_AddBackground(sample, pixel);
  std::memcpy(pixel, sample, 3);
}

// The lid image's pixel in `row` of the lid at column x, or null when there is none
// to read there: no image, no frame, a frame shorter than its rows of 240 pixels, or
// a row outside the image. The fill colour is painted instead.
const unsigned char* lidPixel(const VContent* lid, int row, unsigned char x) {
  const std::vector<uint8_t>* frame = currentFrame(lid);
  if (frame == nullptr) return nullptr;
  const size_t stride = static_cast<size_t>(kSize) * 4;
  if (frame->size() < stride * lid->height) return nullptr;
  if (row < 0) return nullptr;
  const size_t offset = (x + static_cast<size_t>(row) * kSize) * 4;
  if (offset + 4 > frame->size()) return nullptr;
  return frame->data() + offset;
}

// One tick of an image sequence while an animation plays.
void advanceSequence(VContent* image, SequenceState& state) {
  if (image == nullptr) return;
  const int n = static_cast<int>(image->frames.size());
  const int i = image->frameIndex;
  if (i < n - 1) {
    if (image->ratio <= state.tick) {
      image->frameIndex = static_cast<uint16_t>(i + 1);
      state.tick = 1;
    } else {
      ++state.tick;
    }
  } else if (n != 1) {
    const int loops = image->loop;
    if (loops == 0 || loops - 1 > state.loopsDone) {
      ++state.loopsDone;
      image->frameIndex = 0;
      state.tick = 1;
    }
  }
}

void restartSequence(SequenceState& state) {
  state = SequenceState{};
}

}  // namespace

Eyes::Eyes(bool isLeft, short irisX, short irisY) : isLeft(isLeft), homeX_(irisX), homeY_(irisY) {
  this->irisX = irisX;
  this->irisY = irisY;
}

EyePose Eyes::pose() const {
  PlayGate::Reading reading;
  return *this;
}

void Eyes::setPose(const EyePose& pose) {
  PlayGate::Change change;
  static_cast<EyePose&>(*this) = pose;
}

void Eyes::rest() {
  EyePose home;
  home.irisX = homeX_;
  home.irisY = homeY_;
  setPose(home);
}

void Eyes::SetLidIndex(unsigned short index, bool top) {
  if (top) {
    topLidIndex = index;
    restartSequence(topLidSeq);
  } else {
    bottomLidIndex = index;
    restartSequence(bottomLidSeq);
  }
}

int8_t Eyes::set_Frame_12Bit(float scaleX, float scaleY, int x, int y, short topLidY,
                             short bottomLidY) {
  // Load then store, not an exchange: the common case of one caller at a time is
  // all this guards.
  while (busy.load()) sleepOneMs();
  busy.store(true);
  int8_t result = 0;
  {
    std::lock_guard<std::mutex> own(composing_);
    unsigned char out[kFrameBytes];
    {
      // No image this frame reads may change until it is composed.
      PlayGate::Reading reading;
      irisX = static_cast<short>(x);
      irisY = static_cast<short>(y);
      // 64-bit so that no position or scale, however far off the panel, can overflow.
      const long long centreX =
          isLeft ? static_cast<long long>(x) - offsetX : static_cast<long long>(x) + offsetX;
      const long long centreY = static_cast<long long>(y) + offsetY;
      this->topLidY = topLidY;
      this->bottomLidY = bottomLidY;
      this->scaleX = scaleX;
      this->scaleY = scaleY;
      // Row by row, with the same bytes as the per-pixel rules below.
      eyeframe::compose(*this, scaleX, scaleY, centreX, centreY, topLidY, bottomLidY, out);
    }
    LcdData data{};
    data.lcd = isLeft ? 0 : 1;
    data.buffer = out;
    result = LcdControl::writeLcd(&data);
  }
  busy.store(false);
  return result;
}

// Lids the track's current event switches to but that are not in memory yet are
// decoded here, outside the gate, and only then put in place.
void Eyes::preloadLids(const EyeSideAnimation& side) {
  if (side.current_event >= side.events.size()) return;
  const moveEvent& event = side.events[side.current_event];
  struct Pending {
    size_t index = 0;
    bool wanted = false;
    VContent image;
  } pending[2];
  {
    PlayGate::Reading reading;
    if (lidImages == nullptr) return;
    const short wanted[2] = {event.top_lid_index, event.bot_lid_index};
    const unsigned short shown[2] = {topLidIndex, bottomLidIndex};
    for (int i = 0; i < 2; ++i) {
      const short k = wanted[i];
      if (k < 0 || static_cast<size_t>(k) >= lidImages->size() || k == shown[i]) continue;
      const VContent& lid = (*lidImages)[static_cast<size_t>(k)].content;
      if (lid.isReady()) continue;
      pending[i] = {static_cast<size_t>(k), true, lid};
    }
  }
  if (!pending[0].wanted && !pending[1].wanted) return;
  for (Pending& p : pending)
    if (p.wanted) p.image.loadSequence();
  PlayGate::Change change;
  for (Pending& p : pending) {
    if (!p.wanted || lidImages == nullptr || p.index >= lidImages->size()) continue;
    VContent& lid = (*lidImages)[p.index].content;
    // The same lid named twice, or a catalogue read anew meanwhile: leave it.
    if (!lid.isReady() && lid.path == p.image.path) std::swap(lid, p.image);
  }
}

uint8_t Eyes::setAnimationFrame(EyeSideAnimation* side, VContent* irisImage,
                                VContent* backgroundImage) {
  if (side == nullptr) return 2;
  preloadLids(*side);

  short xy[2];
  float scale[2];
  short lid[2];
  bool changed = false;
  {
    // Pointers, sequence positions and the pose change together, between two frames.
    PlayGate::Change change;
    bool redraw = false;
    if (iris != irisImage) {
      iris = irisImage;
      if (irisImage != nullptr) irisImage->frameIndex = 0;
      restartSequence(irisSeq);
      redraw = true;
    }
    if (background != backgroundImage) {
      background = backgroundImage;
      if (backgroundImage != nullptr) backgroundImage->frameIndex = 0;
      restartSequence(backgroundSeq);
      redraw = true;
    }

    // Switches one lid to catalogue entry k when k names another lid of the catalogue.
    auto switchLid = [this, &redraw](short k, VContent*& lid, uint8_t*& colour,
                                     unsigned short& index, SequenceState& state) {
      if (lidImages == nullptr || k < 0 || static_cast<size_t>(k) >= lidImages->size() ||
          k == index)
        return;
      EyeLidPart& entry = (*lidImages)[static_cast<size_t>(k)];
      lid = &entry.content;
      entry.content.frameIndex = 0;
      restartSequence(state);
      index = static_cast<unsigned short>(k);
      colour = entry.color;
      redraw = true;
    };
    if (side->current_event < side->events.size()) {
      const moveEvent& event = side->events[side->current_event];
      switchLid(event.top_lid_index, topLid, topLidColor, topLidIndex, topLidSeq);
      switchLid(event.bot_lid_index, bottomLid, bottomLidColor, bottomLidIndex, bottomLidSeq);
    }

    xy[0] = irisX;
    xy[1] = irisY;
    scale[0] = scaleX;
    scale[1] = scaleY;
    lid[0] = topLidY;
    lid[1] = bottomLidY;
    // A track with no event left to compute counts as ended.
    const bool computed =
        side->current_event < side->events.size() &&
        side->calculateXY(irisX, irisY, xy, scaleX, scaleY, scale, topLidY, bottomLidY, lid);
    if (!computed) {
      side->finished = true;
      if (topLid != nullptr) topLid->frameIndex = 0;
      if (bottomLid != nullptr) bottomLid->frameIndex = 0;
      restartSequence(topLidSeq);
      restartSequence(bottomLidSeq);
      return 2;
    }

    auto moved = [](const VContent* image, const SequenceState& state) {
      return image != nullptr && image->frameIndex != state.lastFrame;
    };
    changed = xy[0] != irisX || xy[1] != irisY || scale[0] != scaleX || scale[1] != scaleY ||
              lid[0] != topLidY || lid[1] != bottomLidY || moved(topLid, topLidSeq) ||
              moved(bottomLid, bottomLidSeq) || moved(background, backgroundSeq) ||
              moved(iris, irisSeq) || redraw;
    if (changed) {
      if (topLid != nullptr) topLidSeq.lastFrame = topLid->frameIndex;
      if (bottomLid != nullptr) bottomLidSeq.lastFrame = bottomLid->frameIndex;
      if (background != nullptr) backgroundSeq.lastFrame = background->frameIndex;
      if (iris != nullptr) irisSeq.lastFrame = iris->frameIndex;
    }
  }
  if (changed) set_Frame_12Bit(scale[0], scale[1], xy[0], xy[1], lid[0], lid[1]);

  PlayGate::Change change;
  advanceSequence(topLid, topLidSeq);
  advanceSequence(bottomLid, bottomLidSeq);
  advanceSequence(background, backgroundSeq);
  advanceSequence(iris, irisSeq);
  return changed ? 1 : 0;
}

void Eyes::setResizedPixel(unsigned char* out, const unsigned char* src, float ratioX, float ratioY,
                           short col, short row, int width) {
  // The caller vouches for the four neighbours; nothing is pinned.
  eyeframe::samplePinned(out, src, std::numeric_limits<size_t>::max() / 32, ratioX, ratioY, col,
                         row, width);
}

void Eyes::removeAlpha_AddBackground(unsigned char* pixel, unsigned char* background) {
  if (pixel[3] > kOpaqueAlpha) return;
  // The weight is worked out in double and then used as a float, as the panels'
  // reference frames were made.
  const float a = static_cast<float>(pixel[3] / 255.0);
  const float na = 1.0f - a;
  for (int c = 0; c < 3; ++c)
    pixel[c] = static_cast<unsigned char>(static_cast<float>(pixel[c]) * a +
                                          static_cast<float>(background[c]) * na + 0.5f);
}

void Eyes::lid_top_Paint(unsigned char* pixel, short topLidY, unsigned char x, unsigned char y) {
  const int h = topLid != nullptr ? topLid->height : 0;
  // The lid image ends just above row topLidY; rows above it take the fill colour.
  const unsigned char* colour = nullptr;
  if (topLidY <= y + h) colour = lidPixel(topLid, y - topLidY + h, x);
  if (colour == nullptr) colour = topLidColor;
  if (colour != nullptr) blendOver(pixel, colour);
}

void Eyes::lid_bottom_Paint(unsigned char* pixel, short bottomLidY, unsigned char x,
                            unsigned char y) {
  const int h = bottomLid != nullptr ? bottomLid->height : 0;
  // The lid image starts at row bottomLidY; rows below it take the fill colour.
  const unsigned char* colour = nullptr;
  if (y - bottomLidY < h) colour = lidPixel(bottomLid, y - bottomLidY, x);
  if (colour == nullptr) colour = bottomLidColor;
  if (colour != nullptr) blendOver(pixel, colour);
}

uint8_t Eyes::set12bit_pixel(bool& half, unsigned char c0, unsigned char c1, unsigned char c2,
                             unsigned char& out0, unsigned char& out1) {
  if (half) {
    out0 = static_cast<unsigned char>(c1 | (c2 << 4));
    out1 = static_cast<unsigned char>((c0 & 15) << 4);
    half = false;
    return 1;
  }
  out0 = static_cast<unsigned char>(out0 | c2);
  out1 = static_cast<unsigned char>(c0 | (c1 << 4));
  half = true;
  return 2;
}
