#include "Studio.h"

#include <httplib.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "CatalogueWatch.h"
#include "EyeControl.h"
#include "EyeEvent.h"
#include "EyeEventListener.h"
#include "Helper.h"
#include "LcdControl.h"
#include "Timeline.h"
#include "lint.h"
#include "look.h"

using nlohmann::json;

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kLongPoll = std::chrono::seconds(1);
constexpr int kFrameMs = 40;

// The latest frame of each panel, and a counter that waiting page requests watch.
class FrameHub {
 public:
  void put(uint8_t panel, const uint8_t* frame) {
    if (muted_) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      frames_[panel].assign(frame, frame + LcdControl::kFrameBytes);
      ++counter_;
    }
    changed_.notify_all();
  }

  // Both panels as 8-bit RGB once the counter passes `after` (or the wait ends).
  std::pair<uint64_t, std::string> next(uint64_t after) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kLongPoll, [&] { return counter_ > after || closed_; });
    // Unpacked after unlocking, so the eyes never wait for a page.
    const auto frames = frames_;
    const uint64_t counter = counter_;
    lock.unlock();
    std::string body;
    body.reserve(2 * 240 * 240 * 3);
    for (const auto& frame : frames) {
      std::vector<uint8_t> rgb = frame.empty() ? std::vector<uint8_t>(240 * 240 * 3)
                                               : LcdControl::unpack12Bit(frame.data());
      body.append(rgb.begin(), rgb.end());
    }
    return {counter, std::move(body)};
  }

  uint64_t counter() {
    std::lock_guard<std::mutex> lock(mutex_);
    return counter_;
  }

  // While muted, frames are not passed on (frames drawn only to reach another).
  void mute(bool muted) { muted_ = muted; }

  void close() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      closed_ = true;
    }
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::array<std::vector<uint8_t>, LcdControl::kPanels> frames_;
  uint64_t counter_ = 0;
  bool closed_ = false;
  std::atomic<bool> muted_{false};
};

// The LCD output the eyes draw into while the studio runs.
class HubOutput : public LcdOutput {
 public:
  explicit HubOutput(std::shared_ptr<FrameHub> hub) : hub_(std::move(hub)) {}
  std::string describe() const override { return "eye studio"; }

 protected:
  int open_() override { return 0; }
  int write_(uint8_t panel, const uint8_t* frame) override {
    hub_->put(panel, frame);
    return 0;
  }

 private:
  std::shared_ptr<FrameHub> hub_;
};

struct Notification {
  uint64_t seq;
  const char* kind;
  unsigned short id;
};

// Start, complete and abort notifications, numbered as they arrive.
class NotificationLog : public EyeEventListener {
 public:
  void onEyeStart(unsigned short id) override { add("start", id); }
  void onEyeComplete(unsigned short id) override { add("complete", id); }
  void onEyeAbort(unsigned short id) override { add("abort", id); }

  std::vector<Notification> after(uint64_t seq) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Notification> result;
    for (const auto& n : log_)
      if (n.seq > seq) result.push_back(n);
    return result;
  }

 private:
  void add(const char* kind, unsigned short id) {
    std::lock_guard<std::mutex> lock(mutex_);
    log_.push_back({log_.size() + 1, kind, id});
  }

  std::mutex mutex_;
  std::vector<Notification> log_;
};

// A request the studio refuses; the page shows the message.
struct BadRequest {
  int status;
  std::string message;
};

std::string textParam(const httplib::Request& req, const char* name) {
  if (!req.has_param(name))
    throw BadRequest{400, std::string("missing parameter \"") + name + "\""};
  return req.get_param_value(name);
}

long numberParam(const httplib::Request& req, const char* name, long lowest, long highest) {
  const std::string text = textParam(req, name);
  long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < lowest || value > highest)
    throw BadRequest{400, "parameter \"" + std::string(name) + "\" must be a whole number from " +
                              std::to_string(lowest) + " to " + std::to_string(highest)};
  return value;
}

json poseJson(const studio::TrackFrame& track) {
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

}  // namespace

struct Studio::Impl {
  explicit Impl(StudioOptions opts) : options(std::move(opts)), watch(options.configDir) {}

  StudioOptions options;
  std::shared_ptr<FrameHub> hub = std::make_shared<FrameHub>();
  NotificationLog notifications;
  httplib::Server server;
  std::thread serverThread;
  std::thread watchThread;
  std::mutex stopMutex;
  std::condition_variable stopSignal;
  bool stopping = false;

  // Everything below is guarded by `commands`: page commands and reloads take turns.
  std::mutex commands;
  studio::CatalogueWatch watch;
  std::vector<studio::Finding> findings;
  uint64_t generation = 0;
  std::string irisShape;
  std::string irisStyle;
  std::string backgroundType;
  std::string backgroundStyle;
  std::map<unsigned short, std::string> playNames;
  std::string timelineName;
  std::vector<studio::TimelineFrame> timeline;
  Clock::time_point playStart;
  int stepFrame = -1;  // the frame shown while paused, -1 while not paused
  // The stepper replays a copy of the last animation played from where the eyes
  // were when it started, frame by frame as the player draws it.
  struct EyeStart {
    studio::EyePose pose;
    unsigned short topLid = 0;
    unsigned short bottomLid = 0;
  };
  EyeStart starts[2];
  std::shared_ptr<EyeAnimation> played;
  std::shared_ptr<EyeAnimation> stepping;
  int framesStepped = 0;

  void reload();
  void wireAfterReload();
  bool showIris(const std::string& shape, const std::string& style);
  bool showBackground(const std::string& type, const std::string& style);
  static void requireEyes();
  void showStep(int frame);
  void rewind();

  json catalogueJson();
  json stateJson(uint64_t afterSeq);
  void routes();
};

void Studio::Impl::requireEyes() {
  if (!EyeControl::isActive())
    throw BadRequest{409, "the eyes are not up yet: fix the catalogue errors first"};
}

void Studio::Impl::reload() {
  findings = watch.check();
  if (eyes::hasErrors(findings)) {
    for (const auto& f : findings) spdlog::error("studio: {}", eyes::formatFinding(f));
    return;
  }
  EyeControl::Abort();
  if (!EyeControl::isActive()) {
    const eyes::Look look = eyes::availableLook(
        options.configDir, {IrisType::getShape(irisShape), irisStyle,
                            BackgroundType::getShape(backgroundType), backgroundStyle});
    const int8_t status = EyeControl::initFrom(options.configDir, look.irisShape, look.irisStyle,
                                               look.backgroundKind, look.backgroundStyle);
    if (status != 0) {
      findings.push_back({"", 0, eyes::Severity::Error,
                          "the eyes could not start (status " + std::to_string(status) + ")"});
      return;
    }
    // init opened the output named by the environment; the page takes over from it.
    LcdControl::setOutput(std::make_unique<HubOutput>(hub));
    EyeControl::SetFrames(EyeSide::BOTH);
  } else {
    EyeControl::loadEyeFilesFrom(options.configDir);
    wireAfterReload();
  }
  timeline.clear();
  timelineName.clear();
  stepFrame = -1;
  played.reset();
  stepping.reset();
  ++generation;
}

// Reads the catalogue's iris (background) anew and shows it on both eyes; false when
// the catalogue has no such entry. The names must round-trip, as the lookups fall
// back to a default for unknown names.
bool Studio::Impl::showIris(const std::string& shape, const std::string& style) {
  const IrisShape value = IrisType::getShape(shape);
  EyePart part;
  if (IrisType::getName(value) != shape || EyeControl::getIris(value, style, part) != 0)
    return false;
  EyeControl::setIris(part, EyeSide::BOTH);
  irisShape = shape;
  irisStyle = style;
  return true;
}

bool Studio::Impl::showBackground(const std::string& type, const std::string& style) {
  const EyeContentType value = BackgroundType::getShape(type);
  EyePart part;
  if (BackgroundType::getName(value) != type || EyeControl::getBackground(value, style, part) != 0)
    return false;
  EyeControl::setBackground(part, EyeSide::BOTH);
  backgroundType = type;
  backgroundStyle = style;
  return true;
}

// The library has pointed the eyes into the eyelid catalogue read anew; the iris and
// background are read again so that edited images show.
void Studio::Impl::wireAfterReload() {
  showIris(irisShape, irisStyle);
  showBackground(backgroundType, backgroundStyle);
}

void Studio::Impl::rewind() {
  for (int i = 0; i < 2; ++i) {
    const bool left = i == 0;
    Eyes& eye = left ? EyeControl::Left_Eye : EyeControl::Right_Eye;
    const EyeStart& start = starts[i];
    studio::pointLidColours(eye, start.topLid, start.bottomLid);
    EyeControl::setLid(start.topLid, start.bottomLid, left ? EyeSide::LEFT : EyeSide::RIGHT);
    const studio::EyePose& p = start.pose;
    EyeControl::SetEyePosition(left, p.x, p.y, p.scaleX, p.scaleY,
                               static_cast<unsigned char>(p.topLidY),
                               static_cast<unsigned char>(p.bottomLidY));
  }
  // An animation may have switched the iris image.
  showIris(irisShape, irisStyle);
  stepping = std::make_shared<EyeAnimation>(*played);
  stepping->ClearAnimation();
  stepping->state = AnimationState::PLAYING;
  framesStepped = 0;
}

void Studio::Impl::showStep(int frame) {
  EyeControl::Abort();
  // Only the frame asked for goes to the page, not the ones drawn on the way.
  hub->mute(true);
  if (!stepping || frame + 1 < framesStepped) rewind();
  while (framesStepped <= frame && EyeControl::stepAnimationFrame(*stepping)) ++framesStepped;
  hub->mute(false);
  EyeControl::SetFrames(EyeSide::BOTH);
  stepFrame = frame;
}

json Studio::Impl::catalogueJson() {
  json animations = json::array();
  for (const auto& animation : EyeControl::eye_animations) {
    json categories = json::array();
    for (auto category : animation->categories) categories.push_back(eyes::categoryName(category));
    // The frame count does not depend on where the eyes start.
    const size_t frames = studio::buildTimeline(*animation, {}, {}).size();
    animations.push_back({{"name", animation->name},
                          {"id", animation->id},
                          {"categories", categories},
                          {"frames", frames},
                          {"lengthMs", frames * kFrameMs}});
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
  return {{"generation", generation},
          {"animations", animations},
          {"irises", irises},
          {"backgrounds", backgrounds},
          {"lids", lids}};
}

json Studio::Impl::stateJson(uint64_t afterSeq) {
  json events = json::array();
  for (const auto& n : notifications.after(afterSeq)) {
    const auto name = playNames.find(n.id);
    events.push_back({{"seq", n.seq},
                      {"kind", n.kind},
                      {"id", n.id},
                      {"name", name != playNames.end() ? name->second : ""}});
  }
  json found = json::array();
  for (const auto& f : findings)
    found.push_back({{"file", f.file},
                     {"line", f.line},
                     {"error", f.severity == eyes::Severity::Error},
                     {"text", eyes::formatFinding(f)}});
  const auto eye = [](const Eyes& e) {
    return json{{"x", e.getIrisX()},
                {"y", e.getIrisY()},
                {"topLid", e.topLidIndex},
                {"bottomLid", e.bottomLidIndex}};
  };
  return {{"up", EyeControl::isActive()},
          {"playing", EyeControl::isAnimating()},
          {"animation", timelineName},
          {"frames", timeline.size()},
          {"stepFrame", stepFrame},
          {"generation", generation},
          {"frameCounter", hub->counter()},
          {"iris", {{"shape", irisShape}, {"style", irisStyle}}},
          {"background", {{"type", backgroundType}, {"style", backgroundStyle}}},
          {"left", eye(EyeControl::Left_Eye)},
          {"right", eye(EyeControl::Right_Eye)},
          {"findings", found},
          {"events", events}};
}

void Studio::Impl::routes() {
  using httplib::Request;
  using httplib::Response;
  // Every command runs under `commands`; a refused request answers with its reason.
  const auto command = [this](auto handler) {
    return [this, handler](const Request& req, Response& res) {
      try {
        std::lock_guard<std::mutex> lock(commands);
        res.set_content(handler(req).dump(), "application/json");
      } catch (const BadRequest& e) {
        res.status = e.status;
        res.set_content(json{{"error", e.message}}.dump(), "application/json");
      }
    };
  };

  server.Get("/", [](const Request&, Response& res) { res.set_content(kStudioPage, "text/html"); });
  server.Get("/api/catalogue", command([this](const Request&) { return catalogueJson(); }));
  server.Get("/api/state", command([this](const Request& req) {
               const uint64_t after =
                   req.has_param("after") ? numberParam(req, "after", 0, 1L << 40) : 0;
               return stateJson(after);
             }));
  server.Get("/api/timeline", command([this](const Request&) {
               json frames = json::array();
               for (const auto& f : timeline)
                 frames.push_back({{"left", poseJson(f.left)}, {"right", poseJson(f.right)}});
               return json{{"animation", timelineName}, {"frames", frames}};
             }));
  // Long poll: answers as soon as a frame newer than `after` was drawn, or after a second.
  server.Get("/api/frame", [this](const Request& req, Response& res) {
    uint64_t after = 0;
    try {
      if (req.has_param("after")) after = numberParam(req, "after", 0, 1L << 40);
    } catch (const BadRequest& e) {
      res.status = e.status;
      res.set_content(json{{"error", e.message}}.dump(), "application/json");
      return;
    }
    auto [counter, body] = hub->next(after);
    res.set_header("X-Frame-Counter", std::to_string(counter));
    res.set_content(std::move(body), "application/octet-stream");
  });

  server.Post("/api/play", command([this](const Request& req) {
                requireEyes();
                const std::string name = textParam(req, "name");
                const auto animation = EyeControl::getAnimation(name);
                if (!animation) throw BadRequest{404, "no animation named \"" + name + "\""};
                EyeControl::Abort();
                timeline =
                    studio::buildTimeline(*animation, studio::EyePose::of(EyeControl::Left_Eye),
                                          studio::EyePose::of(EyeControl::Right_Eye));
                timelineName = name;
                stepFrame = -1;
                played = animation;
                stepping.reset();
                for (int i = 0; i < 2; ++i) {
                  const Eyes& eye = i == 0 ? EyeControl::Left_Eye : EyeControl::Right_Eye;
                  starts[i] = {studio::EyePose::of(eye), eye.topLidIndex, eye.bottomLidIndex};
                }
                // Played as an eye block, so listeners hear the start as well.
                auto block = std::make_shared<BlockEye>(BLOCK_EYE_ANIMATION);
                block->animation = animation;
                const unsigned short id = block->id();
                playNames[id] = name;
                playStart = Clock::now();
                EyeControl::ProcessEyeBlock(block);
                return json{{"id", id}, {"frames", timeline.size()}};
              }));
  server.Post("/api/abort", command([](const Request&) {
                EyeControl::Abort();
                return json::object();
              }));
  server.Post("/api/pause", command([this](const Request&) {
                requireEyes();
                if (timeline.empty()) throw BadRequest{409, "nothing to pause: play an animation"};
                int frame = stepFrame >= 0 ? stepFrame : static_cast<int>(timeline.size()) - 1;
                if (EyeControl::isAnimating()) {
                  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                                           Clock::now() - playStart)
                                           .count();
                  frame = std::min(frame, static_cast<int>(elapsed / kFrameMs));
                }
                showStep(frame);
                return json{{"stepFrame", frame}};
              }));
  server.Post(
      "/api/step", command([this](const Request& req) {
        requireEyes();
        if (timeline.empty()) throw BadRequest{409, "no animation to step through"};
        const long frame = numberParam(req, "frame", 0, static_cast<long>(timeline.size()) - 1);
        showStep(static_cast<int>(frame));
        const auto& f = timeline[static_cast<size_t>(frame)];
        return json{{"stepFrame", frame}, {"left", poseJson(f.left)}, {"right", poseJson(f.right)}};
      }));

  server.Post("/api/iris", command([this](const Request& req) {
                requireEyes();
                const std::string shape = textParam(req, "shape");
                const std::string style = textParam(req, "style");
                if (!showIris(shape, style))
                  throw BadRequest{404, "no iris " + shape + "/" + style + " in the catalogue"};
                return json::object();
              }));
  server.Post(
      "/api/background", command([this](const Request& req) {
        requireEyes();
        const std::string type = textParam(req, "type");
        const std::string style = textParam(req, "style");
        if (!showBackground(type, style))
          throw BadRequest{404, "no background " + type + "/" + style + " in the catalogue"};
        return json::object();
      }));
  server.Post("/api/lids", command([](const Request& req) {
                requireEyes();
                const long highest = static_cast<long>(EyeControl::lid_images.size()) - 1;
                const long top = numberParam(req, "top", 0, highest);
                const long bottom = numberParam(req, "bottom", 0, highest);
                for (Eyes* eye : {&EyeControl::Left_Eye, &EyeControl::Right_Eye})
                  studio::pointLidColours(*eye, static_cast<unsigned short>(top),
                                          static_cast<unsigned short>(bottom));
                EyeControl::setLid(static_cast<unsigned short>(top),
                                   static_cast<unsigned short>(bottom), EyeSide::BOTH);
                return json::object();
              }));
  server.Post("/api/position", command([](const Request& req) {
                requireEyes();
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

Studio::Studio(StudioOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {
  const Settings& settings = Helper::getSettings();
  impl_->irisShape = IrisType::getName(static_cast<IrisShape>(settings.defaultIrisShape));
  impl_->irisStyle = settings.defaultIrisStyle;
  impl_->backgroundType =
      BackgroundType::getName(static_cast<EyeContentType>(settings.defaultBackgroundType));
  impl_->backgroundStyle = settings.defaultBackgroundStyle;
}

Studio::~Studio() {
  stop();
}

int Studio::start() {
  Impl& s = *impl_;
  EyeEvent::AddListener(&s.notifications, false);
  reloadIfChanged();
  s.routes();
  const int port =
      s.options.port == 0
          ? s.server.bind_to_any_port(s.options.host)
          : (s.server.bind_to_port(s.options.host, s.options.port) ? s.options.port : -1);
  if (port < 0) {
    spdlog::error("studio: cannot listen on {}:{}", s.options.host, s.options.port);
    return -1;
  }
  s.serverThread = std::thread([&s] { s.server.listen_after_bind(); });
  s.watchThread = std::thread([this, &s] {
    std::unique_lock<std::mutex> lock(s.stopMutex);
    while (!s.stopSignal.wait_for(lock, s.options.pollInterval, [&] { return s.stopping; })) {
      lock.unlock();
      reloadIfChanged();
      lock.lock();
    }
  });
  return port;
}

void Studio::wait() {
  std::unique_lock<std::mutex> lock(impl_->stopMutex);
  impl_->stopSignal.wait(lock, [&] { return impl_->stopping; });
}

void Studio::stop() {
  Impl& s = *impl_;
  {
    std::lock_guard<std::mutex> lock(s.stopMutex);
    if (s.stopping) return;
    s.stopping = true;
  }
  s.stopSignal.notify_all();
  s.hub->close();
  s.server.stop();
  if (s.serverThread.joinable()) s.serverThread.join();
  if (s.watchThread.joinable()) s.watchThread.join();
  EyeControl::Abort();
  EyeEvent::RemoveListener(&s.notifications);
}

void Studio::reloadIfChanged() {
  std::lock_guard<std::mutex> lock(impl_->commands);
  if (impl_->watch.changed()) impl_->reload();
}

int runStudio(const StudioOptions& options) {
  if (options.configDir.empty()) {
    std::fprintf(stderr, "eyes studio: no catalogue directory given (--config DIR)\n");
    return 2;
  }
  Studio studio(options);
  const int port = studio.start();
  if (port < 0) return 1;
  std::printf("Eye studio: open http://%s:%d/\n", options.host.c_str(), port);
  std::fflush(stdout);
  studio.wait();
  return 0;
}
