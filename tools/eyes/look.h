// What the eyes show at start-up when a catalogue lacks the configured default.
#pragma once

#include <string>

#include "Background.h"
#include "Iris.h"

namespace eyes {

struct Look {
  IrisShape irisShape = IrisShape::CLASSIC;
  std::string irisStyle;
  EyeContentType backgroundKind = EyeContentType::COLOR;
  std::string backgroundStyle;
};

// The defaults of the settings record.
Look settingsLook();

// `wanted` where the catalogues in `dir` can show it. A part they cannot show, and
// which the user did not choose (`irisChosen`, `backgroundChosen`), becomes the first
// iris of the first shape group or the first background of the first group; each
// replacement is said once on the default logger. Chosen parts are kept as asked.
Look availableLook(const std::string& dir, const Look& wanted, bool irisChosen = false,
                   bool backgroundChosen = false);

}  // namespace eyes
