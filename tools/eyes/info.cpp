// eyes info: what a catalogue directory holds, in a few lines per catalogue.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>

#include "EyeControl.h"
#include "commands.h"
#include "lint.h"
#include "render.h"

namespace eyes {

int runInfo(const std::string& dir) {
  if (!std::filesystem::is_directory(dir)) {
    std::fprintf(stderr, "eyes info: %s is not a directory\n", dir.c_str());
    return kExitUsage;
  }
  // The errors in lint's words, file and line; the library's own exception text
  // ("basic_string: ...") would say nothing to whoever edits the files.
  const bool broken = reportCatalogueErrors("eyes info", dir);
  try {
    if (EyeControl::loadEyeFilesFrom(dir) < 0) return kExitProblems;
  } catch (const std::exception&) {
    return kExitProblems;
  }

  std::printf("Catalogues in %s\n\nIrises:\n", dir.c_str());
  for (const IrisType& type : EyeControl::iris_types) {
    std::printf("  %-9s", IrisType::getName(type.shape).c_str());
    for (const Iris& iris : type.irises) std::printf(" %s", iris.style.c_str());
    std::printf("\n");
  }
  std::printf("\nBackgrounds:\n");
  for (const BackgroundType& type : EyeControl::background_types) {
    std::printf("  %-9s", BackgroundType::getName(type.type).c_str());
    for (const Background& background : type.backgrounds)
      std::printf(" %s", background.style.c_str());
    std::printf("\n");
  }
  std::printf("\nEyelids (index, id, name):\n");
  for (size_t i = 0; i < EyeControl::lid_images.size(); ++i) {
    const EyeLidPart& lid = EyeControl::lid_images[i];
    if (lid.content.isReady())
      std::printf("  %2zu %3u %-16s %u x %u\n", i, lid.id, lid.name.c_str(), lid.content.width,
                  lid.content.height);
    else
      std::printf("  %2zu %3u %-16s sequence %s\n", i, lid.id, lid.name.c_str(),
                  lid.content.path.c_str());
  }

  std::map<int, std::vector<const EyeAnimation*>> byCategory;
  for (const auto& animation : EyeControl::eye_animations) {
    if (animation->categories.empty()) byCategory[0].push_back(animation.get());
    for (EyeAnimationCategory c : animation->categories)
      byCategory[c < 12 ? c : 0].push_back(animation.get());
  }
  std::printf("\nAnimations (%zu), by category (name, id, length):\n",
              EyeControl::eye_animations.size());
  for (const auto& [category, animations] : byCategory) {
    std::printf("  %s\n", categoryName(category).c_str());
    for (const EyeAnimation* animation : animations)
      std::printf("    %-20s %5u %6.2f s\n", animation->name.c_str(), animation->id,
                  animationFrameCount(*animation) * kFrameMs / 1000.0);
  }
  return broken ? kExitProblems : kExitOk;
}

}  // namespace eyes
