// The facade's process-wide state, start-up, image lookup and appearance commands.
#include "EyeControl.h"

#include <spdlog/spdlog.h>

#include <cstddef>
#include <iterator>
#include <string>
#include <utility>

#include "Helper.h"
#include "LcdControl.h"
#include "LoadEyeAnimations.h"
#include "PlayGate.h"
#include "catalogue/CatalogueRules.h"

// Built in this order; the eyes hold raw pointers into the image records below,
// which therefore never move.
Eyes EyeControl::Left_Eye(true, 100, 140);
Eyes EyeControl::Right_Eye(false, 140, 140);
std::vector<std::shared_ptr<EyeAnimation>> EyeControl::eye_animations;
std::vector<EyeLidPart> EyeControl::lid_images;
EyePart EyeControl::default_iris;
EyePart EyeControl::default_background;
std::vector<IrisType> EyeControl::iris_types;
std::vector<BackgroundType> EyeControl::background_types;
std::shared_ptr<EyeAnimation> EyeControl::active_animation;

std::atomic<uint8_t> EyeControl::active_type{33};
std::atomic<bool> EyeControl::is_processing{false};
std::atomic<bool> EyeControl::is_active{false};
std::mutex EyeControl::mutex_eye_conrol;

namespace {

// First group of the catalogue with the given shape; later groups of the same
// shape are never looked at.
IrisType* findIrisType(IrisShape shape) {
  for (auto& type : EyeControl::iris_types)
    if (type.shape == shape) return &type;
  return nullptr;
}

BackgroundType* findBackgroundType(EyeContentType type) {
  for (auto& entry : EyeControl::background_types)
    if (entry.type == type) return &entry;
  return nullptr;
}

// Callers hold a PlayGate::Change.
void pointIris(Eyes& eye, VContent* image) {
  eye.iris = image;
  eye.offsetX = EyeControl::default_iris.offsetX;
  eye.offsetY = EyeControl::default_iris.offsetY;
}

// Points both eyes at the default background. Callers hold a PlayGate::Change.
void pointBackgrounds() {
  EyeControl::Left_Eye.background = &EyeControl::default_background.left;
  EyeControl::Right_Eye.background = &EyeControl::default_background.right;
}

// Puts the side's images of `part` in `shown`; only a change of both sides takes the
// part's offsets, so a one-sided change keeps those of the images already in place.
// Swapped, not assigned: the images replaced leave with `part`, after the caller's
// PlayGate::Change.
void swapIn(EyePart& shown, EyePart& part, EyeSide side) {
  if (side == EyeSide::BOTH) {
    shown.offsetX = part.offsetX;
    shown.offsetY = part.offsetY;
  }
  if (affectsLeftEye(side)) std::swap(shown.left, part.left);
  if (affectsRightEye(side)) std::swap(shown.right, part.right);
}

// Points an eye at everything start-up gives it and draws its first frame.
void wireEye(Eyes& eye, VContent& iris, VContent& background, short x) {
  {
    PlayGate::Change change;
    eye.iris = &iris;
    eye.background = &background;
    // An empty eyelid catalogue leaves no lid to point at; the lids start open, so
    // nothing reads them before a lid is chosen.
    EyeLidPart* lid = EyeControl::lid_images.empty() ? nullptr : &EyeControl::lid_images.front();
    eye.topLid = lid ? &lid->content : nullptr;
    eye.bottomLid = lid ? &lid->content : nullptr;
    eye.topLidColor = lid ? lid->color : nullptr;
    eye.bottomLidColor = lid ? lid->color : nullptr;
    eye.lidImages = &EyeControl::lid_images;
    eye.offsetX = EyeControl::default_iris.offsetX;
    eye.offsetY = EyeControl::default_iris.offsetY;
  }
  eye.set_Frame_12Bit(1.0f, 1.0f, x, 140, 0, 240);
}

// After the eyelid catalogue was read anew (`old` holds the list the eyes may still
// point into): a lid or fill colour of entry i of `old` moves to entry i of the new
// list, or to its first entry when the list got shorter. Callers hold a PlayGate::Change.
void repointLids(Eyes& eye, const std::vector<EyeLidPart>& old) {
  std::vector<EyeLidPart>& now = EyeControl::lid_images;
  // Entry of `now` taking over what `p` pointed at in `old`; -1 when it was not in `old`.
  auto follow = [&](const void* p) -> long {
    for (size_t i = 0; i < old.size(); ++i)
      if (p == &old[i].content || p == old[i].color)
        return static_cast<long>(i < now.size() ? i : 0);
    return -1;
  };
  auto lid = [&](VContent*& image, uint8_t*& colour, unsigned short& index) {
    const long at = follow(image);
    if (at >= 0) {
      image =
          static_cast<size_t>(at) < now.size() ? &now[static_cast<size_t>(at)].content : nullptr;
      if (image != nullptr) index = static_cast<unsigned short>(at);
    }
    const long colourAt = follow(colour);
    if (colourAt >= 0)
      colour = static_cast<size_t>(colourAt) < now.size() ? now[static_cast<size_t>(colourAt)].color
                                                          : nullptr;
  };
  lid(eye.topLid, eye.topLidColor, eye.topLidIndex);
  lid(eye.bottomLid, eye.bottomLidColor, eye.bottomLidIndex);
}

// Paints the first frame of `image` with `count` pixels, never past its end.
void paintFirstFrame(VContent& image, int count, uint8_t red, uint8_t green, uint8_t blue) {
  auto& frame = image.frames.front();
  const size_t limit = frame.size() / 3;
  for (int i = 0; i < count && static_cast<size_t>(i) < limit; ++i) {
    frame[3 * static_cast<size_t>(i)] = red;
    frame[3 * static_cast<size_t>(i) + 1] = green;
    frame[3 * static_cast<size_t>(i) + 2] = blue;
  }
}

}  // namespace

// --- start-up and status ---

int8_t EyeControl::init(IrisShape shape, std::string irisStyle, EyeContentType backgroundType,
                        std::string backgroundStyle) {
  return initFrom(kConfigDir, shape, std::move(irisStyle), backgroundType,
                  std::move(backgroundStyle));
}

int8_t EyeControl::init(ColorCode irisColor, ColorCode backgroundColor) {
  return init(IrisShape::CLASSIC, Color::getColorName(irisColor), EyeContentType::COLOR,
              Color::getColorName(backgroundColor));
}

int8_t EyeControl::initFrom(const std::string& dir, IrisShape shape, std::string irisStyle,
                            EyeContentType backgroundType, std::string backgroundStyle) {
  if (is_active) return 1;
  if (loadEyeFilesFrom(dir) < 0) return -1;
  // The catalogues stay loaded when the panels fail; a later init loads them again.
  if (LcdControl::init(LCD_COLOR_DEPTH_12BIT) < 0) return -2;
  is_processing = false;
  is_active = true;

  // A missing default is only reported: the eyes show whatever the records hold.
  if (getIris(shape, std::move(irisStyle), default_iris) < 0)
    spdlog::error("Eye Control default iris set failed!");
  if (getBackground(backgroundType, std::move(backgroundStyle), default_background) < 0)
    spdlog::error("Eye Control default background set failed!");

  wireEye(Left_Eye, default_iris.left, default_background.left, 100);
  wireEye(Right_Eye, default_iris.right, default_background.right, 140);
  return 0;
}

bool EyeControl::isActive() {
  return is_active;
}

bool EyeControl::isAnimating() {
  return is_processing;
}

float EyeControl::getVersion() {
  return 1.0f;
}

int8_t EyeControl::loadDefaultIris() {
  PlayGate::applicationActivity();
  const Settings& settings = Helper::getSettings();
  if (getIris(static_cast<IrisShape>(settings.defaultIrisShape), settings.defaultIrisStyle,
              default_iris) < 0)
    return -1;
  {
    PlayGate::Change change;
    pointIris(Left_Eye, &default_iris.left);
    pointIris(Right_Eye, &default_iris.right);
  }
  SetFrames(EyeSide::BOTH);
  spdlog::debug("Default iris loaded");
  return 0;
}

int8_t EyeControl::loadDefaultBackground() {
  PlayGate::applicationActivity();
  const Settings& settings = Helper::getSettings();
  if (getBackground(static_cast<EyeContentType>(settings.defaultBackgroundType),
                    settings.defaultBackgroundStyle, default_background) < 0)
    return -1;
  {
    PlayGate::Change change;
    pointBackgrounds();
  }
  SetFrames(EyeSide::BOTH);
  spdlog::debug("Default background loaded");
  return 0;
}

int8_t EyeControl::SetFrames(EyeSide side) {
  int8_t result = 0;
  auto redraw = [&result](Eyes& eye) {
    const int8_t r = eye.set_Frame_12Bit(eye.getScaleX(), eye.getScaleY(), eye.getIrisX(),
                                         eye.getIrisY(), eye.getTopLidY(), eye.getBottomLidY());
    if (result == 0) result = r;
  };
  if (affectsLeftEye(side)) redraw(Left_Eye);
  if (affectsRightEye(side)) redraw(Right_Eye);
  return result;
}

// --- catalogues ---

int8_t EyeControl::loadEyeFiles() {
  return loadEyeFilesFrom(kConfigDir);
}

int8_t EyeControl::loadEyeFilesFrom(const std::string& dir) {
  std::string base = dir;
  if (!base.empty() && base.back() != '/') base += '/';
  // The eyelid reader already loads images, so relative paths must resolve first.
  VContent::setBaseDirectory(base);

  for (const catalogue::CatalogueFile file : catalogue::kLoadOrder) {
    const std::string path = base + catalogue::fileName(file);
    if (Helper::getPathInfo(path.c_str()) == 0) {
      spdlog::error("File:{} NOT EXIST !", path);
      return -1;
    }
    // Each catalogue is replaced as soon as it is read; a later missing file
    // leaves the earlier ones loaded. Files are read before the gate is taken, and
    // the lists they replace are freed after it is let go.
    switch (file) {
      case catalogue::CatalogueFile::Animations: {
        auto animations = LoadEyeAnimations::get_Animations(path.c_str());
        PlayGate::Change change;
        eye_animations.swap(animations);
        break;
      }
      case catalogue::CatalogueFile::Backgrounds: {
        auto backgrounds = getBackgroundTypes(path.c_str());
        PlayGate::Change change;
        background_types.swap(backgrounds);
        break;
      }
      case catalogue::CatalogueFile::Eyelids: {
        auto lids = get_LidImages(path.c_str());
        PlayGate::Change change;
        lid_images.swap(lids);
        repointLids(Left_Eye, lids);
        repointLids(Right_Eye, lids);
        break;
      }
      case catalogue::CatalogueFile::Irises: {
        auto irises = getIrisTypes(path.c_str());
        PlayGate::Change change;
        iris_types.swap(irises);
        break;
      }
    }
  }
  return 0;
}

// --- image lookup ---

int8_t EyeControl::getIris(IrisShape shape, std::string style, EyePart& part) {
  Iris found;
  {
    PlayGate::Reading reading;  // the catalogue may be read anew meanwhile
    IrisType* type = findIrisType(shape);
    if (type == nullptr) return -2;
    const Iris* iris = type->getIris(std::move(style));
    if (iris == nullptr) return -1;
    found = *iris;
  }
  // Decoded before the swap; the images replaced are freed after it.
  VContent left = VContent::getImage(found.left, true, true);
  VContent right = VContent::getImage(found.right, true, true);
  PlayGate::Change change;
  part.offsetX = found.offsetX;
  part.offsetY = found.offsetY;
  std::swap(part.left, left);
  std::swap(part.right, right);
  return 0;
}

const char* EyeControl::getIrisPath(IrisShape shape, std::string style, bool left) {
  IrisType* type = findIrisType(shape);
  if (type == nullptr) return nullptr;
  const Iris* iris = type->getIris(std::move(style));
  if (iris == nullptr) return nullptr;
  return left ? iris->left.c_str() : iris->right.c_str();
}

int8_t EyeControl::getBackground(EyeContentType type, std::string style, EyePart& part) {
  Background found;
  {
    PlayGate::Reading reading;
    // A colour background needs a COLOR group in the catalogue too, though nothing
    // of it is used.
    BackgroundType* group = findBackgroundType(type);
    if (group == nullptr) return -2;
    if (type != EyeContentType::COLOR) {
      const Background* background = group->getBackground(style);
      if (background == nullptr) return -1;
      found = *background;
    }
  }
  if (type == EyeContentType::COLOR) {
    FillBackgroundColor(part, Color::getColor(Color::getColorCode(style)), true);
    return 0;
  }
  VContent left = VContent::getImage(found.left, false, true);
  VContent right = VContent::getImage(found.right, false, true);
  PlayGate::Change change;
  std::swap(part.left, left);
  std::swap(part.right, right);
  return 0;
}

void EyeControl::FillBackgroundColor(EyePart& part, Color color, bool reduce) {
  // Painted in place: the eyes may be showing `part`.
  PlayGate::Change change;
  const bool leftIsNew = part.left.frames.empty();
  if (leftIsNew)
    part.left.AddFrame("", 240, 240, false, reduce, color.red, color.green, color.blue, 255);
  const bool rightIsNew = part.right.frames.empty();
  if (rightIsNew)
    part.right.AddFrame("", 240, 240, false, reduce, color.red, color.green, color.blue, 255);

  if (reduce) {
    color.red >>= 4;
    color.green >>= 4;
    color.blue >>= 4;
  }
  // Both images are painted with the left one's pixel count.
  const int count = static_cast<int>(part.left.width) * static_cast<int>(part.left.height);
  if (!leftIsNew) paintFirstFrame(part.left, count, color.red, color.green, color.blue);
  if (!rightIsNew) paintFirstFrame(part.right, count, color.red, color.green, color.blue);
}

// --- appearance commands ---

int EyeControl::setIris(VContent* image, EyeSide side) {
  PlayGate::applicationActivity();
  if (image == nullptr) return -1;
  {
    PlayGate::Change change;
    if (affectsLeftEye(side)) Left_Eye.iris = image;
    if (affectsRightEye(side)) Right_Eye.iris = image;
  }
  SetFrames(side);
  return 0;
}

int EyeControl::setIris(IrisShape shape, ColorCode color, EyeSide side) {
  PlayGate::applicationActivity();
  const int8_t r = getIris(shape, Color::getColorName(color), default_iris);
  if (r < 0) return r;
  Settings& settings = Helper::getSettings();
  settings.defaultIrisStyle = Color::getColorName(color);
  settings.defaultIrisShape = static_cast<uint8_t>(shape);
  {
    PlayGate::Change change;
    if (affectsLeftEye(side)) pointIris(Left_Eye, &default_iris.left);
    if (affectsRightEye(side)) pointIris(Right_Eye, &default_iris.right);
  }
  SetFrames(side);
  return 0;
}

int EyeControl::setIris(EyePart part, EyeSide side) {
  PlayGate::applicationActivity();
  {
    PlayGate::Change change;
    swapIn(default_iris, part, side);
    if (affectsLeftEye(side)) pointIris(Left_Eye, &default_iris.left);
    if (affectsRightEye(side)) pointIris(Right_Eye, &default_iris.right);
  }
  SetFrames(side);
  return 0;
}

int EyeControl::setBackground(Color color) {
  PlayGate::applicationActivity();
  FillBackgroundColor(default_background, color, true);
  {
    PlayGate::Change change;
    pointBackgrounds();
  }
  SetFrames(EyeSide::BOTH);
  return 0;
}

int EyeControl::setBackground(VContent* image, EyeSide side) {
  PlayGate::applicationActivity();
  if (image == nullptr) return -1;
  {
    PlayGate::Change change;
    if (affectsLeftEye(side)) Left_Eye.background = image;
    if (affectsRightEye(side)) Right_Eye.background = image;
  }
  SetFrames(side);
  return 0;
}

int EyeControl::setBackground(EyeContentType type, ColorCode color) {
  PlayGate::applicationActivity();
  const std::string name = Color::getColorName(color);
  if (getBackground(type, name, default_background) < 0) return -1;
  Settings& settings = Helper::getSettings();
  settings.defaultBackgroundStyle = name;
  settings.defaultBackgroundType = static_cast<uint8_t>(type);
  {
    PlayGate::Change change;
    pointBackgrounds();
  }
  SetFrames(EyeSide::BOTH);
  return 0;
}

int EyeControl::setBackground(EyePart part, EyeSide side) {
  PlayGate::applicationActivity();
  {
    PlayGate::Change change;
    swapIn(default_background, part, side);
    if (affectsLeftEye(side)) Left_Eye.background = &default_background.left;
    if (affectsRightEye(side)) Right_Eye.background = &default_background.right;
  }
  SetFrames(side);
  return 0;
}

int EyeControl::setEyes(IrisShape shape, ColorCode irisColor, ColorCode backgroundColor) {
  PlayGate::applicationActivity();
  const std::string irisName = Color::getColorName(irisColor);
  const std::string backgroundName = Color::getColorName(backgroundColor);
  if (getIris(shape, irisName, default_iris) < 0) return -1;
  // The iris is already reloaded when this fails; that order is intended.
  if (getBackground(EyeContentType::COLOR, backgroundName, default_background) < 0) return -2;

  Settings& settings = Helper::getSettings();
  settings.defaultIrisStyle = irisName;
  settings.defaultIrisShape = static_cast<uint8_t>(shape);
  settings.defaultBackgroundType = static_cast<uint8_t>(EyeContentType::COLOR);
  settings.defaultBackgroundStyle = backgroundName;
  {
    PlayGate::Change change;
    pointIris(Left_Eye, &default_iris.left);
    pointIris(Right_Eye, &default_iris.right);
    pointBackgrounds();
  }
  SetFrames(EyeSide::BOTH);
  return 0;
}

int EyeControl::setLid(unsigned short topIndex, unsigned short bottomIndex, EyeSide side) {
  PlayGate::applicationActivity();
  {
    PlayGate::Change change;
    const size_t n = lid_images.size();
    if (topIndex >= n || bottomIndex >= n) return -1;
    auto apply = [topIndex, bottomIndex](Eyes& eye) {
      eye.topLid = &lid_images[topIndex].content;
      eye.bottomLid = &lid_images[bottomIndex].content;
      eye.SetLidIndex(topIndex, true);
      eye.SetLidIndex(bottomIndex, false);
    };
    if (affectsLeftEye(side)) apply(Left_Eye);
    if (affectsRightEye(side)) apply(Right_Eye);
  }
  SetFrames(side);
  return 0;
}

int EyeControl::setLid(VContent* image, bool top, EyeSide side) {
  PlayGate::applicationActivity();
  if (image == nullptr) return -1;
  {
    PlayGate::Change change;
    auto apply = [image, top](Eyes& eye) { (top ? eye.topLid : eye.bottomLid) = image; };
    if (affectsLeftEye(side)) apply(Left_Eye);
    if (affectsRightEye(side)) apply(Right_Eye);
  }
  SetFrames(side);
  return 0;
}

int EyeControl::setPosition(EyeSide side, short x, short y, float scaleX, float scaleY,
                            unsigned char topLidY, unsigned char bottomLidY) {
  PlayGate::applicationActivity();
  // Magnitudes taken as unsigned 16-bit, so -32768 is refused too.
  const auto magnitude = [](short v) { return static_cast<uint16_t>(v < 0 ? -v : v); };
  if (magnitude(x) > 250 || magnitude(y) > 250) return -1;
  if (affectsLeftEye(side)) Left_Eye.set_Frame_12Bit(scaleX, scaleY, x, y, topLidY, bottomLidY);
  if (affectsRightEye(side)) Right_Eye.set_Frame_12Bit(scaleX, scaleY, x, y, topLidY, bottomLidY);
  return 0;
}

int EyeControl::SetEyePosition(bool left, short x, short y, float scaleX, float scaleY,
                               unsigned char topLidY, unsigned char bottomLidY) {
  PlayGate::applicationActivity();
  Eyes& eye = left ? Left_Eye : Right_Eye;
  return eye.set_Frame_12Bit(scaleX, scaleY, x, y, topLidY, bottomLidY);
}

int EyeControl::getIrisPosition(EyeSide side, short& x, short& y) {
  const Eyes* eye = nullptr;
  if (side == EyeSide::LEFT)
    eye = &Left_Eye;
  else if (side == EyeSide::RIGHT)
    eye = &Right_Eye;
  else
    return -1;
  x = eye->getIrisX();
  y = eye->getIrisY();
  return 0;
}
