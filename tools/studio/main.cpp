// eyes-studio [--config DIR] [--port N]: the eye studio on its own.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Studio.h"

#ifndef EYE_DEFAULT_ASSETS_DIR
#define EYE_DEFAULT_ASSETS_DIR ""
#endif

int main(int argc, char** argv) {
  StudioOptions options;
  options.configDir = EYE_DEFAULT_ASSETS_DIR;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--config" && i + 1 < argc) {
      options.configDir = argv[++i];
    } else if (arg == "--port" && i + 1 < argc) {
      char* end = nullptr;
      const long port = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || port < 0 || port > 65535) {
        std::fprintf(stderr, "eyes-studio: --port needs a number from 0 to 65535\n");
        return 2;
      }
      options.port = static_cast<int>(port);
    } else {
      std::printf("usage: %s [--config DIR] [--port N]\n", argv[0]);
      return arg == "-h" || arg == "--help" ? 0 : 2;
    }
  }
  return runStudio(options);
}
