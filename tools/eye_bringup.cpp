// Brings both eyes up from a catalogue directory, plays one animation, and leaves
// the panels' frames as PNG files so the result can be looked at without a robot.
//
//   eye-bringup [CONFIG_DIR] [OUT_DIR] [ANIMATION]
//
// Frames go to OUT_DIR through the LCD library's png: output unless EYE_LCD is set.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "EyeControl.h"
#include "Helper.h"
#include "LcdControl.h"

#ifndef EYE_DEFAULT_ASSETS_DIR
#define EYE_DEFAULT_ASSETS_DIR ""
#endif

int main(int argc, char** argv) {
  if (argc > 1 && (std::string(argv[1]) == "-h" || std::string(argv[1]) == "--help")) {
    std::printf("usage: %s [CONFIG_DIR] [OUT_DIR] [ANIMATION]\n", argv[0]);
    return 0;
  }
  const std::string configDir = argc > 1 ? argv[1] : EYE_DEFAULT_ASSETS_DIR;
  const std::string outDir = argc > 2 ? argv[2] : "eye-frames";
  if (configDir.empty()) {
    std::fprintf(stderr, "eye-bringup: no catalogue directory given\n");
    return 2;
  }
  if (!std::getenv("EYE_LCD")) setenv("EYE_LCD", ("png:" + outDir).c_str(), 1);

  const Settings& settings = Helper::getSettings();
  const int8_t status = EyeControl::initFrom(configDir, static_cast<IrisShape>(settings.defaultIrisShape),
                                             settings.defaultIrisStyle,
                                             static_cast<EyeContentType>(settings.defaultBackgroundType),
                                             settings.defaultBackgroundStyle);
  if (status != 0) {
    std::fprintf(stderr, "eye-bringup: EyeControl::initFrom(%s) returned %d\n", configDir.c_str(), status);
    return 1;
  }
  std::printf("eyes up from %s (%zu animations, %zu eyelids)\n", configDir.c_str(),
              EyeControl::eye_animations.size(), EyeControl::lid_images.size());

  std::string animation = argc > 3 ? argv[3] : "";
  if (animation.empty() && !EyeControl::eye_animations.empty())
    animation = EyeControl::eye_animations.front()->name;
  if (!animation.empty()) {
    if (EyeControl::setAnimation(1, animation) != 0) {
      std::fprintf(stderr, "eye-bringup: no animation named \"%s\"\n", animation.c_str());
      return 1;
    }
    std::printf("playing \"%s\" ...\n", animation.c_str());
    while (EyeControl::isAnimating()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::printf("frames written: left %llu, right %llu; look in %s/\n",
              static_cast<unsigned long long>(LcdControl::framesWritten(0)),
              static_cast<unsigned long long>(LcdControl::framesWritten(1)), outDir.c_str());
  return 0;
}
