// The edited animation as the page sends and receives it: the file's attribute names
// and values, checked on the way in.
#pragma once

#include <nlohmann/json.hpp>

#include "AnimationXml.h"

namespace studio {

nlohmann::json draftJson(const AnimationDraft& draft);

// Throws BadRequest (400) naming the first value the catalogue could not hold.
AnimationDraft draftFromJson(const nlohmann::json& j);

}  // namespace studio
