#include "look.h"

#include <spdlog/spdlog.h>

#include <exception>
#include <filesystem>

#include "EyeControl.h"
#include "Helper.h"
#include "Logging.h"
#include "catalogue/CatalogueRules.h"

namespace eyes {

namespace {

std::string catalogueFile(const std::string& dir, catalogue::CatalogueFile file) {
  return (std::filesystem::path(dir) / catalogue::fileName(file)).string();
}

}  // namespace

Look settingsLook() {
  const Settings& settings = Helper::getSettings();
  return {static_cast<IrisShape>(settings.defaultIrisShape), settings.defaultIrisStyle,
          static_cast<EyeContentType>(settings.defaultBackgroundType),
          settings.defaultBackgroundStyle};
}

Look availableLook(const std::string& dir, const Look& wanted, bool irisChosen,
                   bool backgroundChosen) {
  std::vector<IrisType> irises;
  std::vector<BackgroundType> backgrounds;
  try {
    // Read quietly: start-up reads them again and reports their problems then.
    LogCapture quiet;
    irises = EyeControl::getIrisTypes(catalogueFile(dir, catalogue::CatalogueFile::Irises).c_str());
    backgrounds = EyeControl::getBackgroundTypes(
        catalogueFile(dir, catalogue::CatalogueFile::Backgrounds).c_str());
  } catch (const std::exception&) {
    return wanted;  // the catalogues stop the library; start-up says so
  }

  Look look = wanted;
  // The first group of a shape is the one the library searches.
  auto irisGroup = [&](IrisShape shape) -> IrisType* {
    for (IrisType& type : irises)
      if (type.shape == shape) return &type;
    return nullptr;
  };
  IrisType* group = irisGroup(wanted.irisShape);
  if (!irisChosen && (group == nullptr || group->getIris(wanted.irisStyle) == nullptr)) {
    for (const IrisType& type : irises) {
      if (type.irises.empty()) continue;
      look.irisShape = type.shape;
      look.irisStyle = type.irises.front().style;
      spdlog::warn("no iris {}:{} in {}; showing {}:{}", catalogue::irisShapeName(wanted.irisShape),
                   wanted.irisStyle, dir, catalogue::irisShapeName(look.irisShape), look.irisStyle);
      break;
    }
  }

  auto backgroundGroup = [&](EyeContentType kind) -> BackgroundType* {
    for (BackgroundType& type : backgrounds)
      if (type.type == kind) return &type;
    return nullptr;
  };
  // Any colour name paints a plain background; an image must be listed.
  BackgroundType* kind = backgroundGroup(wanted.backgroundKind);
  const bool shown = kind != nullptr && (wanted.backgroundKind == EyeContentType::COLOR ||
                                         kind->getBackground(wanted.backgroundStyle) != nullptr);
  if (!backgroundChosen && !shown) {
    for (const BackgroundType& type : backgrounds) {
      if (type.backgrounds.empty()) continue;
      look.backgroundKind = type.type;
      look.backgroundStyle = type.backgrounds.front().style;
      spdlog::warn("no background {}:{} in {}; showing {}:{}",
                   catalogue::contentKindName(wanted.backgroundKind), wanted.backgroundStyle, dir,
                   catalogue::contentKindName(look.backgroundKind), look.backgroundStyle);
      break;
    }
  }
  return look;
}

}  // namespace eyes
