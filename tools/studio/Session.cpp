#include "Session.h"

#include <spdlog/spdlog.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "EyeControl.h"
#include "Helper.h"
#include "LcdControl.h"
#include "LoadEyeAnimations.h"
#include "catalogue/CatalogueRules.h"
#include "look.h"

namespace fs = std::filesystem;

namespace studio {

namespace {

const char* const kAnimations = catalogue::fileName(catalogue::CatalogueFile::Animations);

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// A scratch folder that shows `dir` with its animation catalogue replaced by `text`,
// so the checker reads the new file beside the real images and catalogues.
struct Staging {
  fs::path root;
  Staging(const std::string& dir, const std::string& text) {
    std::string pattern = (fs::temp_directory_path() / "eye-studio-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw BadRequest{500, "cannot make a scratch folder to check in"};
    root = pattern;
    for (const auto& entry : fs::directory_iterator(dir))
      if (entry.path().filename() != kAnimations)
        fs::create_symlink(fs::absolute(entry.path()), root / entry.path().filename());
    std::ofstream(root / kAnimations, std::ios::binary) << text;
  }
  ~Staging() {
    std::error_code ignored;
    fs::remove_all(root, ignored);
  }
};

}  // namespace

Session::Session(std::string configDir, std::shared_ptr<FrameHub> frames)
    : watch(std::move(configDir)), hub(std::move(frames)) {
  const Settings& settings = Helper::getSettings();
  irisShape = IrisType::getName(static_cast<IrisShape>(settings.defaultIrisShape));
  irisStyle = settings.defaultIrisStyle;
  backgroundType =
      BackgroundType::getName(static_cast<EyeContentType>(settings.defaultBackgroundType));
  backgroundStyle = settings.defaultBackgroundStyle;
}

void Session::requireEyes() const {
  if (!EyeControl::isActive())
    throw BadRequest{409, "the eyes are not up yet: fix the catalogue errors first"};
}

bool Session::kept() const {
  return EyeControl::isActive() && eyes::hasErrors(findings);
}

void Session::reloadIfChanged() {
  if (watch.changed()) reload();
}

void Session::reload() {
  findings = watch.check();
  if (eyes::hasErrors(findings)) {
    for (const auto& f : findings) spdlog::error("studio: {}", eyes::formatFinding(f));
    return;
  }
  EyeControl::Abort();
  running = false;
  if (!EyeControl::isActive()) {
    bringUp();
  } else {
    // The library points the eyes into the eyelid catalogue read anew; the iris and
    // background are read again so that edited images show.
    EyeControl::loadEyeFilesFrom(watch.dir());
    // The rest pose's lids must still be in the catalogue.
    const size_t lids = EyeControl::lid_images.size();
    for (auto& r : rest_) {
      r.top = r.top < lids ? r.top : 0;
      r.bottom = r.bottom < lids ? r.bottom : static_cast<unsigned short>(lids > 1);
    }
    showIris(irisShape, irisStyle);
    showBackground(backgroundType, backgroundStyle);
  }
  // The selection goes with the old catalogue; a save selects its animation anew.
  selected.reset();
  ++selection;
  stepping_.reset();
  timeline.clear();
  shownFrame = -1;
  ++generation;
}

void Session::bringUp() {
  const eyes::Look look =
      eyes::availableLook(watch.dir(), {IrisType::getShape(irisShape), irisStyle,
                                        BackgroundType::getShape(backgroundType), backgroundStyle});
  const int8_t status = EyeControl::initFrom(watch.dir(), look.irisShape, look.irisStyle,
                                             look.backgroundKind, look.backgroundStyle);
  if (status != 0) {
    findings.push_back({"", 0, eyes::Severity::Error,
                        "the eyes could not start (status " + std::to_string(status) + ")"});
    return;
  }
  // init opened the output named by the environment; the page takes over from it.
  LcdControl::setOutput(std::make_unique<HubOutput>(hub));
  const Eyes* eyes[2] = {&EyeControl::Left_Eye, &EyeControl::Right_Eye};
  for (int i = 0; i < 2; ++i)
    rest_[i] = {EyePose::of(*eyes[i]), eyes[i]->topLidIndex, eyes[i]->bottomLidIndex};
  EyeControl::SetFrames(EyeSide::BOTH);
}

// Reads the catalogue's iris (background) anew and shows it on both eyes; false when
// the catalogue has no such entry. The names must round-trip, as the lookups fall
// back to a default for unknown names.
bool Session::showIris(const std::string& shape, const std::string& style) {
  const IrisShape value = IrisType::getShape(shape);
  EyePart part;
  if (IrisType::getName(value) != shape || EyeControl::getIris(value, style, part) != 0)
    return false;
  EyeControl::setIris(part, EyeSide::BOTH);
  irisShape = shape;
  irisStyle = style;
  return true;
}

bool Session::showBackground(const std::string& type, const std::string& style) {
  const EyeContentType value = BackgroundType::getShape(type);
  EyePart part;
  if (BackgroundType::getName(value) != type || EyeControl::getBackground(value, style, part) != 0)
    return false;
  EyeControl::setBackground(part, EyeSide::BOTH);
  backgroundType = type;
  backgroundStyle = style;
  return true;
}

void Session::showLids(unsigned short top, unsigned short bottom) {
  for (Eyes* eye : {&EyeControl::Left_Eye, &EyeControl::Right_Eye})
    pointLidColours(*eye, top, bottom);
  EyeControl::setLid(top, bottom, EyeSide::BOTH);
}

void Session::setPose(bool left, const EyePose& p, unsigned short top, unsigned short bottom) {
  pointLidColours(left ? EyeControl::Left_Eye : EyeControl::Right_Eye, top, bottom);
  EyeControl::setLid(top, bottom, left ? EyeSide::LEFT : EyeSide::RIGHT);
  EyeControl::SetEyePosition(left, p.x, p.y, p.scaleX, p.scaleY,
                             static_cast<unsigned char>(p.topLidY),
                             static_cast<unsigned char>(p.bottomLidY));
}

void Session::note(const char* kind) {
  log.push_back({log.size() + 1, kind, selected ? selected->name : ""});
}

// Back to the rest pose with a fresh copy of the selected animation, ready for its
// first frame; this is where `eyes render` starts too.
void Session::rewind() {
  const bool muted = hub->muted();
  hub->mute(true);
  setPose(true, rest_[0].pose, rest_[0].top, rest_[0].bottom);
  setPose(false, rest_[1].pose, rest_[1].top, rest_[1].bottom);
  // An animation may have switched the iris image.
  showIris(irisShape, irisStyle);
  hub->mute(muted);
  stepping_ = std::make_shared<EyeAnimation>(*selected);
  stepping_->ClearAnimation();
  stepping_->state = AnimationState::PLAYING;
  framesStepped_ = 0;
}

void Session::select(std::shared_ptr<EyeAnimation> animation, bool run) {
  requireEyes();
  EyeControl::Abort();
  selected = std::move(animation);
  ++selection;
  timeline = buildTimeline(*selected, rest_[0].pose, rest_[1].pose);
  stepping_.reset();
  rewind();
  shownFrame = -1;
  running = run;
  if (run) note("start");
}

void Session::pause() {
  if (!selected) throw BadRequest{409, "nothing to pause: play an animation"};
  if (running) note("pause");
  running = false;
}

void Session::resume() {
  if (!selected) throw BadRequest{409, "nothing to resume: play an animation"};
  if (running) return;
  if (shownFrame + 1 >= static_cast<int>(timeline.size())) {
    rewind();
    shownFrame = -1;
  }
  running = true;
  note("resume");
}

void Session::step(int frame) {
  if (!selected || timeline.empty()) throw BadRequest{409, "no animation to step through"};
  if (frame < 0 || frame >= static_cast<int>(timeline.size()))
    throw BadRequest{400, "frame must be from 0 to " + std::to_string(timeline.size() - 1)};
  if (running) note("pause");
  running = false;
  // Only the frame asked for goes to the page, not the ones drawn on the way.
  hub->mute(true);
  if (!stepping_ || frame < framesStepped_ - 1) rewind();
  while (framesStepped_ <= frame && EyeControl::stepAnimationFrame(*stepping_)) ++framesStepped_;
  hub->mute(false);
  EyeControl::SetFrames(EyeSide::BOTH);
  shownFrame = framesStepped_ - 1;
}

void Session::tick() {
  if (!running || !stepping_) return;
  if (EyeControl::stepAnimationFrame(*stepping_)) {
    shownFrame = framesStepped_++;
    return;
  }
  if (loop) {
    note("loop");
    rewind();
    if (EyeControl::stepAnimationFrame(*stepping_)) shownFrame = framesStepped_++;
    return;
  }
  running = false;
  note("complete");
}

void Session::save(const std::string& replaces, const AnimationDraft& draft) {
  if (draft.name.empty()) throw BadRequest{400, "the animation needs a name"};
  const fs::path file = fs::path(watch.dir()) / kAnimations;
  const std::string text = readFile(file);
  const auto before = LoadEyeAnimations::get_Animations(file.string().c_str());
  std::vector<std::string> expected;
  for (const auto& a : before) {
    if (a->name == replaces && !replaces.empty()) {
      expected.push_back(draft.name);
      continue;
    }
    if (a->name == draft.name)
      throw BadRequest{409, "another animation is already named \"" + draft.name + "\""};
    expected.push_back(a->name);
  }
  if (replaces.empty()) expected.push_back(draft.name);

  std::string error;
  const std::string updated = spliceAnimation(text, replaces, draft, error);
  if (updated.empty()) throw BadRequest{409, error};
  {
    const Staging staging(watch.dir(), updated);
    for (Finding f : eyes::lintCatalogues(staging.root.string())) {
      f.file = fs::path(f.file).lexically_relative(staging.root).string();
      if (f.file == kAnimations && f.severity == eyes::Severity::Error) saveFindings.push_back(f);
    }
    if (!saveFindings.empty())
      throw BadRequest{422, "not saved: the checker found errors in the new file"};
    // Every other animation must read back as it was.
    std::vector<std::string> names;
    for (const auto& a :
         LoadEyeAnimations::get_Animations((staging.root / kAnimations).string().c_str()))
      names.push_back(a->name);
    if (names != expected)
      throw BadRequest{500, "not saved: the new file would not read back as intended"};
  }
  // One backup of the previous file; the new one appears at once, by rename.
  std::error_code failed;
  fs::copy_file(file, fs::path(file) += ".bak", fs::copy_options::overwrite_existing, failed);
  const fs::path temporary = fs::path(file) += ".new";
  std::ofstream(temporary, std::ios::binary) << updated;
  if (failed || (fs::rename(temporary, file, failed), failed))
    throw BadRequest{500, "not saved: " + failed.message()};
  reloadIfChanged();
  if (const auto saved = EyeControl::getAnimation(draft.name)) select(saved, false);
}

}  // namespace studio
