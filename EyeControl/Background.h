// Background content kinds, catalogue entries and groups.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class EyeContentType : uint8_t {
  COLOR = 0,
  IMAGE = 1,
};

struct Background {
  std::string left;   // image path for the left eye
  std::string right;  // image path for the right eye
  std::string style;  // key within its kind; a colour name for COLOR backgrounds
};

struct BackgroundType {
  EyeContentType type = EyeContentType::COLOR;
  std::vector<Background> backgrounds;

  // "COLOR" -> COLOR, "IMAGE" -> IMAGE; anything else yields the settings default.
  static EyeContentType getShape(std::string name);
  // "COLOR", "IMAGE", or "" for other values.
  static std::string getName(EyeContentType type);
  // First background whose style equals `style` exactly, or null.
  Background* getBackground(std::string style);
};
