#include "DraftJson.h"

#include <iterator>

#include "EyeControl.h"
#include "Session.h"

using nlohmann::json;

namespace studio {

namespace {

// Events as the page edits them: the file's attribute names, the file's values.
const char* const kEventFields[] = {"X",           "Y",           "TimeMs",      "Wait",
                                    "ScaleX",      "ScaleY",      "LidTopY",     "LidBotY",
                                    "TopLidIndex", "BotLidIndex", "RotateAngle", "Ellipse_H"};

json eventJson(const EventDraft& e) {
  return {{"X", e.x},
          {"Y", e.y},
          {"TimeMs", e.timeMs},
          {"Wait", e.wait},
          {"ScaleX", e.scaleX},
          {"ScaleY", e.scaleY},
          {"LidTopY", e.lidTopY},
          {"LidBotY", e.lidBotY},
          {"TopLidIndex", e.topLidIndex},
          {"BotLidIndex", e.botLidIndex},
          {"RotateAngle", e.rotateAngle},
          {"Ellipse_H", e.ellipseH}};
}

EventDraft eventOf(const json& j, const std::string& where) {
  EventDraft e;
  int* ints[] = {&e.x,           &e.y,           &e.timeMs,      &e.wait,
                 nullptr,        nullptr,        &e.lidTopY,     &e.lidBotY,
                 &e.topLidIndex, &e.botLidIndex, &e.rotateAngle, &e.ellipseH};
  const long lids = static_cast<long>(EyeControl::lid_images.size());
  for (size_t i = 0; i < std::size(kEventFields); ++i) {
    const char* name = kEventFields[i];
    const auto bad = [&](const std::string& what) {
      return BadRequest{400, where + ": " + name + " " + what};
    };
    if (!j.contains(name) || !j[name].is_number()) throw bad("must be a number");
    if (!ints[i]) {
      (i == 4 ? e.scaleX : e.scaleY) = j[name].get<double>();
      if (!(j[name].get<double>() > 0) || j[name].get<double>() > 555)
        throw bad("must be above 0, at most 555");
      continue;
    }
    if (!j[name].is_number_integer()) throw bad("must be a whole number");
    const long v = j[name].get<long>();
    const bool time = i == 2 || i == 3;
    const bool lid = i == 8 || i == 9;
    if ((time && (v < 0 || v > 32767)) || (lid && (v < 0 || v >= lids)) || v < -32768 || v > 32767)
      throw bad(lid    ? "must name one of the " + std::to_string(lids) + " lid images"
                : time ? "must be from 0 to 32767 ms"
                       : "is out of range");
    *ints[i] = static_cast<int>(v);
  }
  return e;
}

}  // namespace

json draftJson(const AnimationDraft& d) {
  json left = json::array(), right = json::array();
  for (const auto& e : d.left) left.push_back(eventJson(e));
  for (const auto& e : d.right) right.push_back(eventJson(e));
  return {{"id", d.id},
          {"name", d.name},
          {"categories", d.categories},
          {"left", left},
          {"right", right}};
}

AnimationDraft draftFromJson(const json& j) {
  if (!j.is_object()) throw BadRequest{400, "the animation must be a JSON object"};
  AnimationDraft d;
  if (!j.value("name", json()).is_string() || j["name"].get<std::string>().empty())
    throw BadRequest{400, "the animation needs a name"};
  d.name = j["name"];
  const json id = j.value("id", json());
  if (!id.is_number_integer() || id.get<long>() < 0 || id.get<long>() > 65535)
    throw BadRequest{400, "id must be a whole number from 0 to 65535"};
  d.id = id.get<unsigned>();
  for (const auto& c : j.value("categories", json::array())) {
    bool known = false;
    for (int k = 1; k <= EYEANIMATION_USER_DEFINED; ++k)
      known = known || c == eyes::categoryName(k);
    if (!known) throw BadRequest{400, "unknown category " + c.dump()};
    d.categories.push_back(c);
  }
  for (const char* side : {"left", "right"}) {
    const json events = j.value(side, json::array());
    if (!events.is_array()) throw BadRequest{400, std::string(side) + " must be a list of events"};
    for (size_t i = 0; i < events.size(); ++i)
      (side[0] == 'l' ? d.left : d.right)
          .push_back(eventOf(events[i], std::string(side) + " event " + std::to_string(i + 1)));
  }
  return d;
}

}  // namespace studio
