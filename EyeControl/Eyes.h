// The state of one eye, its image records, and the 12-bit frame composer.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "EyeSideAnimation.h"
#include "VContent.h"

// The images of one eye component (iris or background) for both eyes.
struct EyePart {
  int8_t offsetX = 0;  // iris position correction, mirrored between the eyes
  int8_t offsetY = 0;
  VContent left;
  VContent right;
};

// One eyelid image set of the eyelid catalogue.
struct EyeLidPart {
  EyeLidPart();
  EyeLidPart(const EyeLidPart& other);
  // Moves the name; copies the image and the rest.
  EyeLidPart(EyeLidPart&& other) noexcept;
  EyeLidPart& operator=(const EyeLidPart& other);
  ~EyeLidPart();

  std::string name;
  uint16_t id = 0;
  VContent content;                 // frames 240 pixels wide, 4 bytes per pixel
  uint8_t color[4] = {0, 0, 0, 0};  // fill beyond the image: 4-bit R, G, B, 8-bit alpha
};

// Progress of one layer's image sequence during animations.
struct SequenceState {
  uint16_t lastFrame = 0;  // frameIndex of the layer when the eye was last drawn
  uint16_t loopsDone = 0;
  uint8_t tick = 1;  // ticks the current frame has been held
};

// Everything an eye shows and where, as one value: what tools keep and put back. The
// eye's own fields are these.
struct EyePose {
  VContent* iris = nullptr;
  VContent* topLid = nullptr;
  VContent* background = nullptr;
  VContent* bottomLid = nullptr;
  std::vector<EyeLidPart>* lidImages = nullptr;
  int8_t offsetX = 0;
  int8_t offsetY = 0;
  uint8_t* topLidColor = nullptr;
  uint8_t* bottomLidColor = nullptr;
  SequenceState irisSeq;
  SequenceState topLidSeq;
  SequenceState bottomLidSeq;
  SequenceState backgroundSeq;
  short irisX = 0;
  short irisY = 0;
  float scaleX = 1.0f;
  float scaleY = 1.0f;
  short topLidY = 0;
  short bottomLidY = 240;
  unsigned short topLidIndex = 0;
  unsigned short bottomLidIndex = 0;
};

class Eyes : public EyePose {
 public:
  static constexpr int kSize = 240;             // panel width and height
  static constexpr int kFrameBytes = 86400;     // 240 * 240 pixels at 12 bits
  static constexpr uint8_t kOpaqueAlpha = 249;  // alpha above this replaces

  Eyes(bool isLeft, short irisX, short irisY);

  short getIrisX() const { return irisX; }
  short getIrisY() const { return irisY; }
  float getScaleX() const { return scaleX; }
  float getScaleY() const { return scaleY; }
  short getTopLidY() const { return topLidY; }
  short getBottomLidY() const { return bottomLidY; }

  EyePose pose() const;
  void setPose(const EyePose& pose);
  // Back to how the eye was built: at its start position, pointing at no image.
  void rest();

  // Records the lid index shown and restarts that lid's sequence counters.
  void SetLidIndex(unsigned short index, bool top);

  // Stores position, scales and lid lines, composes the whole frame and writes it
  // to this eye's panel. Returns the LCD driver's status.
  int8_t set_Frame_12Bit(float scaleX, float scaleY, int x, int y, short topLidY, short bottomLidY);

  // One animation step of `side` on this eye with the given iris and background.
  // 0: computed, nothing changed; 1: computed and drawn; 2: the track has ended.
  uint8_t setAnimationFrame(EyeSideAnimation* side, VContent* irisImage, VContent* backgroundImage);

  // Per-pixel rules of the composer.
  // Bilinear sample (4 bytes) of a 4-byte-per-pixel image with row stride `width`.
  static void setResizedPixel(unsigned char* out, const unsigned char* src, float ratioX,
                              float ratioY, short col, short row, int width);
  // Blends the 4-byte `pixel` over the 3 colour bytes of `background` into pixel[0..2].
  static void removeAlpha_AddBackground(unsigned char* pixel, unsigned char* background);
  // Blends the top / bottom lid (image, or its fill colour beyond it) at panel
  // pixel (x, y) over the pixel's 3 colour bytes.
  void lid_top_Paint(unsigned char* pixel, short topLidY, unsigned char x, unsigned char y);
  void lid_bottom_Paint(unsigned char* pixel, short bottomLidY, unsigned char x, unsigned char y);
  // Packs one pixel into the 12-bit stream; returns how far the output moves (1 or 2).
  static uint8_t set12bit_pixel(bool& half, unsigned char c0, unsigned char c1, unsigned char c2,
                                unsigned char& out0, unsigned char& out1);

  bool isLeft;
  std::atomic<bool> busy{false};

 private:
  void preloadLids(const EyeSideAnimation& side);

  // Keeps two frames of this eye apart where busy, a load then a store, cannot.
  std::mutex composing_;
  short homeX_;
  short homeY_;
};
