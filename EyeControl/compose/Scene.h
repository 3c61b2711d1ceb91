// One eye's frame as the composer needs it: the current frame of each layer, the iris
// pose and the lid lines. Eyes builds it for each frame; the pointers are borrowed for
// the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "VContent.h"

namespace eyeframe {

constexpr int kSize = 240;             // panel width and height
constexpr uint8_t kOpaqueAlpha = 249;  // alpha above this replaces what lies below

struct Scene {
  struct Layer {
    const uint8_t* pixels = nullptr;  // the current frame; null when there is none
    size_t bytes = 0;                 // of the current frame
    int width = 0, height = 0;        // of the image, frame or not

    static Layer of(const VContent* image) {
      Layer layer;
      if (image == nullptr) return layer;
      layer.width = image->width;
      layer.height = image->height;
      if (image->frameIndex < image->frames.size()) {
        const std::vector<uint8_t>& frame = image->frames[image->frameIndex];
        layer.pixels = frame.data();
        layer.bytes = frame.size();
      }
      return layer;
    }
  };

  Layer background;                       // 240 x 240 RGB; its width is not consulted
  Layer iris;                             // RGBA
  Layer topLid, bottomLid;                // RGBA, rows of 240 pixels whatever their width
  const uint8_t* topLidColour = nullptr;  // RGBA fill beyond each lid image; null: none
  const uint8_t* bottomLidColour = nullptr;
  float scaleX = 1.0f, scaleY = 1.0f;
  long long centreX = 0, centreY = 0;  // iris centre on the panel, offsets applied
  short topLidY = 0, bottomLidY = kSize;

  // The layers of an eye as it points at its images now; the pose is left to set.
  static Scene of(const VContent* background, const VContent* iris, const VContent* topLid,
                  const VContent* bottomLid, const uint8_t* topLidColour,
                  const uint8_t* bottomLidColour) {
    Scene scene;
    scene.background = Layer::of(background);
    scene.iris = Layer::of(iris);
    scene.topLid = Layer::of(topLid);
    scene.bottomLid = Layer::of(bottomLid);
    scene.topLidColour = topLidColour;
    scene.bottomLidColour = bottomLidColour;
    return scene;
  }
};

}  // namespace eyeframe
