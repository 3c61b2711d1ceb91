#include "PngOutput.h"

#include <spdlog/spdlog.h>

#include <cstdio>
#include <filesystem>
#include <system_error>
#include <vector>

#include "VContent.h"

int PngOutput::open_() {
  std::error_code error;
  std::filesystem::create_directories(dir_, error);
  if (!error && !std::filesystem::is_directory(dir_, error))
    error = std::make_error_code(std::errc::not_a_directory);
  if (error) {
    spdlog::error("LCD output png: cannot create directory {}: {}", dir_, error.message());
    return -1;
  }
  counters_.fill(0);
  return 0;
}

int PngOutput::write_(uint8_t panel, const uint8_t* frame) {
  char name[32];
  std::snprintf(name, sizeof name, "/lcd%u_%06llu.png", static_cast<unsigned>(panel),
                static_cast<unsigned long long>(counters_[panel]));
  const std::vector<uint8_t> rgb = LcdControl::unpack12Bit(frame);
  if (!VContent::writePng(dir_ + name, LcdControl::kWidth, LcdControl::kHeight, rgb.data(), false))
    return -1;
  ++counters_[panel];
  return 0;
}
