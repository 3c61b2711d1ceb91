#include "Routes.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "DraftJson.h"
#include "EyeControl.h"
#include "Studio.h"
#include "catalogue/CatalogueRules.h"

using nlohmann::json;

namespace studio {

namespace {

using httplib::Request;
using httplib::Response;

std::string textParam(const Request& req, const char* name) {
  if (!req.has_param(name))
    throw BadRequest{400, std::string("missing parameter \"") + name + "\""};
  return req.get_param_value(name);
}

long numberParam(const Request& req, const char* name, long lowest, long highest) {
  const std::string text = textParam(req, name);
  long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < lowest || value > highest)
    throw BadRequest{400, "parameter \"" + std::string(name) + "\" must be a whole number from " +
                              std::to_string(lowest) + " to " + std::to_string(highest)};
  return value;
}

json poseJson(const TrackFrame& track) {
  const auto& p = track.pose;
  return {{"event", track.event},
          {"x", p.x},
          {"y", p.y},
          {"scaleX", p.scaleX},
          {"scaleY", p.scaleY},
          {"topLidY", p.topLidY},
          {"bottomLidY", p.bottomLidY},
          {"topLidIndex", track.topLidIndex},
          {"bottomLidIndex", track.bottomLidIndex}};
}

json findingsJson(const std::vector<Finding>& findings) {
  json found = json::array();
  for (const auto& f : findings)
    found.push_back({{"file", f.file},
                     {"line", f.line},
                     {"error", f.severity == eyes::Severity::Error},
                     {"text", eyes::formatFinding(f)}});
  return found;
}

json bodyJson(const Request& req) {
  json j = json::parse(req.body, nullptr, false);
  if (j.is_discarded()) throw BadRequest{400, "the body must be JSON"};
  return j;
}

json timelineJson(const Session& s) {
  json frames = json::array();
  for (const auto& f : s.timeline)
    frames.push_back({{"left", poseJson(f.left)}, {"right", poseJson(f.right)}});
  json out = {{"animation", s.selected ? s.selected->name : ""}, {"frames", frames}};
  if (s.selected) {
    out["draft"] = draftJson(draftOf(*s.selected));
    // What the player makes of each event's times: whole frames.
    for (const char* side : {"left", "right"}) {
      json rounded = json::array();
      for (const auto& e : (side[0] == 'l' ? s.selected->left : s.selected->right).events)
        rounded.push_back({{"moveMs", e.move_ms}, {"waitMs", e.wait_ms}});
      out["rounded"][side] = rounded;
    }
  }
  return out;
}

json catalogueJson(const Session& s) {
  json animations = json::array();
  for (const auto& animation : EyeControl::eye_animations) {
    json categories = json::array();
    for (auto category : animation->categories)
      categories.push_back(catalogue::categoryName(category));
    const size_t frames = buildTimeline(*animation, {}, {}).size();
    animations.push_back({{"name", animation->name},
                          {"id", animation->id},
                          {"categories", categories},
                          {"frames", frames},
                          {"lengthMs", frames * 40}});
  }
  json irises = json::array();
  for (const auto& type : EyeControl::iris_types) {
    json styles = json::array();
    for (const auto& iris : type.irises) styles.push_back(iris.style);
    irises.push_back({{"shape", IrisType::getName(type.shape)}, {"styles", styles}});
  }
  json backgrounds = json::array();
  for (const auto& type : EyeControl::background_types) {
    json styles = json::array();
    for (const auto& background : type.backgrounds) styles.push_back(background.style);
    backgrounds.push_back({{"type", BackgroundType::getName(type.type)}, {"styles", styles}});
  }
  json lids = json::array();
  for (size_t i = 0; i < EyeControl::lid_images.size(); ++i)
    lids.push_back({{"index", i},
                    {"name", EyeControl::lid_images[i].name},
                    {"id", EyeControl::lid_images[i].id}});
  // Every category a catalogue can name (index 0, NONE, is none).
  const auto& names = catalogue::categoryNames();
  const json categories = std::vector<std::string>(names.begin() + 1, names.end());
  return {{"generation", s.generation},
          {"animations", animations},
          {"irises", irises},
          {"backgrounds", backgrounds},
          {"lids", lids},
          {"categories", categories}};
}

json stateJson(const Session& s, uint64_t afterSeq) {
  json events = json::array();
  for (const auto& e : s.log)
    if (e.seq > afterSeq) events.push_back({{"seq", e.seq}, {"kind", e.kind}, {"name", e.name}});
  const auto eye = [](const Eyes& e) {
    return json{{"x", e.getIrisX()},
                {"y", e.getIrisY()},
                {"topLid", e.topLidIndex},
                {"bottomLid", e.bottomLidIndex}};
  };
  return {{"up", EyeControl::isActive()},
          {"folder", std::filesystem::absolute(s.watch.dir()).lexically_normal().string()},
          {"playing", s.running},
          {"loop", s.loop},
          {"slowdown", s.slowdown.load()},
          {"animation", s.selected ? s.selected->name : ""},
          {"selection", s.selection},
          {"frames", s.timeline.size()},
          {"stepFrame", s.shownFrame},
          {"generation", s.generation},
          {"frameCounter", s.hub->counter()},
          {"iris", {{"shape", s.irisShape}, {"style", s.irisStyle}}},
          {"background", {{"type", s.backgroundType}, {"style", s.backgroundStyle}}},
          {"left", eye(EyeControl::Left_Eye)},
          {"right", eye(EyeControl::Right_Eye)},
          {"kept", s.kept()},
          {"findings", findingsJson(s.findings)},
          {"events", events}};
}

}  // namespace

std::string Guard::refuse(const Request& req) const {
  const std::string suffix = ":" + std::to_string(port);
  const auto ours = [&](const std::string& authority) {
    for (const std::string& name : {std::string("127.0.0.1"), std::string("localhost"), host})
      if (authority == name + suffix) return true;
    return false;
  };
  if (!ours(req.get_header_value("Host")))
    return "unknown Host: open the address the studio printed";
  if (req.has_header("Origin")) {
    const std::string origin = req.get_header_value("Origin");
    if (origin.rfind("http://", 0) != 0 || !ours(origin.substr(7)))
      return "requests from other pages are refused";
  }
  if (req.method != "GET" && req.get_header_value("X-Studio-Token") != token)
    return "missing or wrong token: open the address the studio printed";
  return {};
}

void addRoutes(httplib::Server& server, Session& s, const Guard& guard) {
  server.set_pre_routing_handler([guard](const Request& req, Response& res) {
    const std::string why = guard.refuse(req);
    if (why.empty()) return httplib::Server::HandlerResponse::Unhandled;
    res.status = 403;
    res.set_content(json{{"error", why}}.dump(), "application/json");
    return httplib::Server::HandlerResponse::Handled;
  });
  // Every command runs under the session's lock; a refused request answers with its reason.
  const auto command = [&s](auto handler) {
    return [&s, handler](const Request& req, Response& res) {
      try {
        std::lock_guard<std::mutex> lock(s.commands);
        s.saveFindings.clear();
        res.set_content(handler(req).dump(), "application/json");
      } catch (const BadRequest& e) {
        res.status = e.status;
        json body = {{"error", e.message}};
        if (!s.saveFindings.empty()) body["findings"] = findingsJson(s.saveFindings);
        res.set_content(body.dump(), "application/json");
      }
    };
  };

  server.Get("/", [](const Request&, Response& res) { res.set_content(kStudioPage, "text/html"); });
  server.Get("/api/catalogue", command([&s](const Request&) { return catalogueJson(s); }));
  server.Get("/api/state", command([&s](const Request& req) {
               const uint64_t after =
                   req.has_param("after") ? numberParam(req, "after", 0, 1L << 40) : 0;
               return stateJson(s, after);
             }));
  server.Get("/api/timeline", command([&s](const Request&) { return timelineJson(s); }));
  // A lid image's first frame as 8-bit RGBA, for its picture beside the lid pickers.
  server.Get("/api/lid", [&s](const Request& req, Response& res) {
    try {
      std::lock_guard<std::mutex> lock(s.commands);
      const long highest = static_cast<long>(EyeControl::lid_images.size()) - 1;
      const VContent& image =
          EyeControl::lid_images[static_cast<size_t>(numberParam(req, "index", 0, highest))]
              .content;
      const size_t pixels = static_cast<size_t>(image.width) * image.height;
      if (image.frames.empty() || image.frames[0].size() != pixels * 4)
        throw BadRequest{404, "this lid has no picture with alpha"};
      std::string rgba(image.frames[0].begin(), image.frames[0].end());
      // Colours are held as 4-bit values; alpha is 8-bit already.
      for (size_t i = 0; i < rgba.size(); ++i)
        if (i % 4 != 3) rgba[i] = static_cast<char>(static_cast<uint8_t>(rgba[i]) * 17);
      res.set_header("X-Width", std::to_string(image.width));
      res.set_header("X-Height", std::to_string(image.height));
      res.set_content(std::move(rgba), "application/octet-stream");
    } catch (const BadRequest& e) {
      res.status = e.status;
      res.set_content(json{{"error", e.message}}.dump(), "application/json");
    }
  });
  // Long poll: answers as soon as a frame newer than `after` was drawn, or after a second.
  server.Get("/api/frame", [&s](const Request& req, Response& res) {
    uint64_t after = 0;
    try {
      if (req.has_param("after")) after = numberParam(req, "after", 0, 1L << 40);
    } catch (const BadRequest& e) {
      res.status = e.status;
      res.set_content(json{{"error", e.message}}.dump(), "application/json");
      return;
    }
    auto [counter, body] = s.hub->next(after);
    res.set_header("X-Frame-Counter", std::to_string(counter));
    res.set_content(std::move(body), "application/octet-stream");
  });

  server.Post("/api/play", command([&s](const Request& req) {
                s.requireEyes();
                const std::string name = textParam(req, "name");
                const auto animation = EyeControl::getAnimation(name);
                if (!animation) throw BadRequest{404, "no animation named \"" + name + "\""};
                s.select(animation, req.get_param_value("run") != "0");
                return json{{"frames", s.timeline.size()}};
              }));
  // The page's draft: shown at `frame` (or played), not saved.
  server.Post("/api/preview", command([&s](const Request& req) {
                s.requireEyes();
                const json body = bodyJson(req);
                s.select(buildAnimation(draftFromJson(body.value("animation", json()))), false);
                const int frame = body.value("frame", 0);
                if (body.value("play", false))
                  s.resume();
                else if (!s.timeline.empty())
                  s.step(std::clamp(frame, 0, static_cast<int>(s.timeline.size()) - 1));
                return timelineJson(s);
              }));
  server.Post("/api/save", command([&s](const Request& req) {
                s.requireEyes();
                const json body = bodyJson(req);
                const json replaces = body.value("replaces", json(""));
                if (!replaces.is_string()) throw BadRequest{400, "replaces must be a name"};
                s.save(replaces, draftFromJson(body.value("animation", json())));
                return json{{"saved", true}, {"generation", s.generation}};
              }));
  server.Post("/api/pause", command([&s](const Request&) {
                s.pause();
                return json{{"stepFrame", s.shownFrame}};
              }));
  server.Post("/api/resume", command([&s](const Request&) {
                s.resume();
                return json::object();
              }));
  server.Post("/api/playback", command([&s](const Request& req) {
                if (req.has_param("loop")) s.loop = textParam(req, "loop") == "1";
                if (req.has_param("slowdown")) {
                  const long slow = numberParam(req, "slowdown", 1, 4);
                  if (slow == 3) throw BadRequest{400, "slowdown must be 1, 2 or 4"};
                  s.slowdown = static_cast<int>(slow);
                }
                return json::object();
              }));
  server.Post(
      "/api/step", command([&s](const Request& req) {
        s.requireEyes();
        if (s.timeline.empty()) throw BadRequest{409, "no animation to step through"};
        const long frame = numberParam(req, "frame", 0, static_cast<long>(s.timeline.size()) - 1);
        s.step(static_cast<int>(frame));
        const auto& f = s.timeline[static_cast<size_t>(frame)];
        return json{{"stepFrame", frame}, {"left", poseJson(f.left)}, {"right", poseJson(f.right)}};
      }));

  server.Post("/api/iris", command([&s](const Request& req) {
                s.requireEyes();
                const std::string shape = textParam(req, "shape");
                const std::string style = textParam(req, "style");
                if (!s.showIris(shape, style))
                  throw BadRequest{404, "no iris " + shape + "/" + style + " in the catalogue"};
                return json::object();
              }));
  server.Post(
      "/api/background", command([&s](const Request& req) {
        s.requireEyes();
        const std::string type = textParam(req, "type");
        const std::string style = textParam(req, "style");
        if (!s.showBackground(type, style))
          throw BadRequest{404, "no background " + type + "/" + style + " in the catalogue"};
        return json::object();
      }));
  server.Post("/api/lids", command([&s](const Request& req) {
                s.requireEyes();
                const long highest = static_cast<long>(EyeControl::lid_images.size()) - 1;
                s.showLids(static_cast<unsigned short>(numberParam(req, "top", 0, highest)),
                           static_cast<unsigned short>(numberParam(req, "bottom", 0, highest)));
                return json::object();
              }));
  server.Post("/api/position", command([](const Request& req) {
                if (!EyeControl::isActive())
                  throw BadRequest{409, "the eyes are not up yet: fix the catalogue errors first"};
                const std::string side = textParam(req, "side");
                if (side != "left" && side != "right")
                  throw BadRequest{400, "parameter \"side\" must be left or right"};
                const long x = numberParam(req, "x", -250, 250);
                const long y = numberParam(req, "y", -250, 250);
                const Eyes& eye = side == "left" ? EyeControl::Left_Eye : EyeControl::Right_Eye;
                EyeControl::setPosition(side == "left" ? EyeSide::LEFT : EyeSide::RIGHT,
                                        static_cast<short>(x), static_cast<short>(y),
                                        eye.getScaleX(), eye.getScaleY(),
                                        static_cast<unsigned char>(eye.getTopLidY()),
                                        static_cast<unsigned char>(eye.getBottomLidY()));
                return json::object();
              }));

  server.set_error_handler([](const Request&, Response& res) {
    if (res.body.empty())
      res.set_content(
          json{{"error", "no such page or method: " + std::to_string(res.status)}}.dump(),
          "application/json");
  });
  server.set_exception_handler([](const Request&, Response& res, std::exception_ptr error) {
    std::string message = "internal error";
    try {
      std::rethrow_exception(error);
    } catch (const std::exception& e) {
      message += std::string(": ") + e.what();
    } catch (...) {
    }
    res.status = 500;
    res.set_content(json{{"error", message}}.dump(), "application/json");
  });
}

}  // namespace studio
