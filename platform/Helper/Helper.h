// Utility library: the robot's settings record, file-system and clock helpers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The robot's persistent preferences. The eye library reads and writes the first
// four fields; they must stay first and in this order.
struct Settings {
  std::string defaultIrisStyle = "BLUE";    // a colour name the colour library knows
  uint8_t defaultIrisShape = 0;             // IrisShape::CLASSIC
  std::string defaultBackgroundStyle = "WHITE";
  uint8_t defaultBackgroundType = 0;        // EyeContentType::COLOR
};

class Helper {
 public:
  // The one process-wide settings record (never moves; not locked).
  static Settings& getSettings();

  // 0 when nothing exists at `path` (or it is null); otherwise a non-zero byte:
  // 1 for a regular file, 2 for a directory, 3 for anything else.
  static uint8_t getPathInfo(const char* path);

  // Monotonic clock in milliseconds (CLOCK_MONOTONIC), unrelated to wall time.
  static int64_t clock_ms();

  // Pieces of `text` between occurrences of `separator`, in order. Empty pieces
  // between two separators are kept; an empty text gives no pieces and a trailing
  // separator adds no empty last piece (the std::getline convention).
  static std::vector<std::string> split(const std::string& text, char separator);
};
