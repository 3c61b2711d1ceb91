// Iris shapes, catalogue entries and groups.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class IrisShape : uint8_t {
  CLASSIC = 0,
  MODERN = 1,
  SPACE = 2,
  ORBIT = 3,
  GLOW = 4,
  DIGI = 5,
  FOOD = 6,
  MISC = 7,
  SEASONAL = 8,
  SYMBOL = 9,
  CASINO = 10,
  MATCH = 11,
};

struct Iris {
  int8_t offsetX = 0;  // position correction in pixels, mirrored between the eyes
  int8_t offsetY = 0;
  std::string left;    // image path for the left eye
  std::string right;   // image path for the right eye
  std::string style;   // key within its shape
};

struct IrisType {
  IrisShape shape = IrisShape::CLASSIC;
  std::vector<Iris> irises;

  // Exact name -> shape; an unknown name yields the settings record's default shape.
  static IrisShape getShape(std::string name);
  // Shape -> name; "" for values of 12 and above.
  static std::string getName(IrisShape shape);
  // First iris whose style equals `style` exactly, or null.
  Iris* getIris(std::string style);
};
