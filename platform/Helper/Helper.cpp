#include "Helper.h"

#include <sys/stat.h>
#include <time.h>

#include <sstream>

Settings& Helper::getSettings() {
  // Never destroyed: detached eye workers may still read it while the process exits.
  static Settings* const settings = new Settings();
  return *settings;
}

uint8_t Helper::getPathInfo(const char* path) {
  if (path == nullptr || *path == '\0') return 0;
  struct stat info {};
  if (stat(path, &info) != 0) {
    // A dangling symbolic link still exists as a name.
    return lstat(path, &info) == 0 ? 3 : 0;
  }
  if (S_ISREG(info.st_mode)) return 1;
  if (S_ISDIR(info.st_mode)) return 2;
  return 3;
}

int64_t Helper::clock_ms() {
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

std::vector<std::string> Helper::split(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  std::istringstream stream(text);
  std::string piece;
  while (std::getline(stream, piece, separator)) pieces.push_back(piece);
  return pieces;
}
