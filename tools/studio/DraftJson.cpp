#include "DraftJson.h"

#include "EyeControl.h"
#include "Session.h"
#include "catalogue/CatalogueRules.h"

using nlohmann::json;

namespace studio {

namespace {

// Events as the page edits them: the file's attribute names, the file's values.
json eventJson(const EventDraft& e) {
  json j;
  const auto& attributes = catalogue::eventRule().attributes;
  for (size_t i = 0; i < attributes.size(); ++i) {
    if (attributes[i].kind == catalogue::ValueKind::Decimal)
      j[attributes[i].name] = e.values[i];
    else
      j[attributes[i].name] = static_cast<long>(e.values[i]);
  }
  return j;
}

// Each value as the field holds it; besides, times are not negative, lid indexes name
// a lid of the catalogue and scales are above 0 (555 keeps the size).
EventDraft eventOf(const json& j, const std::string& where) {
  EventDraft e;
  const long lids = static_cast<long>(EyeControl::lid_images.size());
  const auto& attributes = catalogue::eventRule().attributes;
  for (size_t i = 0; i < attributes.size(); ++i) {
    const catalogue::AttributeRule& rule = attributes[i];
    const std::string name = rule.name;
    const auto bad = [&](const std::string& what) {
      return BadRequest{400, where + ": " + name + " " + what};
    };
    if (!j.contains(name) || !j[name].is_number()) throw bad("must be a number");
    if (rule.kind == catalogue::ValueKind::Decimal) {
      e.values[i] = j[name].get<double>();
      if (!(e.values[i] > 0) || e.values[i] > 555) throw bad("must be above 0, at most 555");
      continue;
    }
    if (!j[name].is_number_integer()) throw bad("must be a whole number");
    const long v = j[name].get<long>();
    const bool time = name == "TimeMs" || name == "Wait";
    const bool lid = name == "TopLidIndex" || name == "BotLidIndex";
    const long lowest = time || lid || !rule.isSigned ? 0 : -(1L << (rule.bits - 1));
    const long highest = lid ? lids - 1 : (1L << (rule.bits - (rule.isSigned ? 1 : 0))) - 1;
    if (v < lowest || v > highest)
      throw bad(lid ? "must name one of the " + std::to_string(lids) + " lid images"
                    : "must be from " + std::to_string(lowest) + " to " + std::to_string(highest));
    e.values[i] = static_cast<double>(v);
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
    if (!c.is_string() || !catalogue::categoryFromName(c.get<std::string>()))
      throw BadRequest{400, "unknown category " + c.dump()};
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
