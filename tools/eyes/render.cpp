#include "render.h"

#include <webp/encode.h>
#include <webp/mux.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "EyeControl.h"
#include "EyeIdle.h"
#include "Helper.h"
#include "LcdControl.h"

namespace fs = std::filesystem;

namespace eyes {
namespace {

constexpr int kPanel = LcdControl::kWidth;
constexpr int kMargin = 20;  // face around the panels
constexpr int kGap = 40;     // face between them
constexpr int kFaceWidth = 2 * kPanel + 2 * kMargin + kGap;
constexpr int kFaceHeight = kPanel + 2 * kMargin;
constexpr uint8_t kFace[3] = {28, 28, 34};

// Both eyes as brought up, to start each rendering from rest.
std::optional<std::array<EyePose, 2>> restPose;

// "NAME:STYLE" -> (value of NAME among `count` names, STYLE).
template <typename Enum, typename NameOf>
std::optional<std::pair<Enum, std::string>> parseChoice(const std::string& text, int count,
                                                        NameOf nameOf) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) return std::nullopt;
  for (int v = 0; v < count; ++v)
    if (nameOf(static_cast<Enum>(v)) == text.substr(0, colon))
      return std::make_pair(static_cast<Enum>(v), text.substr(colon + 1));
  return std::nullopt;
}

void copyPanel(const std::vector<uint8_t>& packed, Picture& picture, int left, int top) {
  if (packed.size() != LcdControl::kFrameBytes) return;
  const std::vector<uint8_t> rgb = LcdControl::unpack12Bit(packed.data());
  for (int y = 0; y < kPanel; ++y)
    std::copy_n(&rgb[static_cast<size_t>(y) * kPanel * 3], kPanel * 3,
                &picture.rgb[(static_cast<size_t>(top + y) * picture.width + left) * 3]);
}

// Half size, each output pixel the mean of a 2 x 2 block.
Picture halve(const Picture& in) {
  Picture out{in.width / 2, in.height / 2, {}};
  out.rgb.resize(static_cast<size_t>(out.width) * out.height * 3);
  for (int y = 0; y < out.height; ++y)
    for (int x = 0; x < out.width; ++x)
      for (int c = 0; c < 3; ++c) {
        auto at = [&](int dx, int dy) {
          return in.rgb[(static_cast<size_t>(2 * y + dy) * in.width + 2 * x + dx) * 3 + c];
        };
        out.rgb[(static_cast<size_t>(y) * out.width + x) * 3 + c] =
            static_cast<uint8_t>((at(0, 0) + at(1, 0) + at(0, 1) + at(1, 1) + 2) / 4);
      }
  return out;
}

bool writePicture(const std::string& path, const Picture& picture, std::string& error) {
  if (VContent::writePng(path, picture.width, picture.height, picture.rgb.data(), false))
    return true;
  error = "cannot write " + path;
  return false;
}

// Appends one frame per step of the player until `animation` has ended.
void playFrames(EyeAnimation& animation, std::vector<Frame>& frames) {
  animation.ClearAnimation();
  animation.state = AnimationState::PLAYING;
  uint64_t written[2] = {LcdControl::framesWritten(0), LcdControl::framesWritten(1)};
  while (EyeControl::stepAnimationFrame(animation)) {
    Frame frame = currentFrame();
    for (uint8_t panel = 0; panel < 2; ++panel) {
      const uint64_t now = LcdControl::framesWritten(panel);
      frame.drawn[panel] = now != written[panel];
      written[panel] = now;
    }
    frames.push_back(std::move(frame));
  }
}

void holdFrames(std::vector<Frame>& frames, size_t count) {
  if (count == 0) return;
  const Frame held = currentFrame();
  frames.insert(frames.end(), count, held);
}

}  // namespace

BringUp bringUpEyes(const std::string& configDir, const std::string& iris,
                    const std::string& background) {
  const Settings& settings = Helper::getSettings();
  auto irisChoice =
      std::make_pair(static_cast<IrisShape>(settings.defaultIrisShape), settings.defaultIrisStyle);
  auto backgroundChoice = std::make_pair(
      static_cast<EyeContentType>(settings.defaultBackgroundType), settings.defaultBackgroundStyle);
  if (!iris.empty()) {
    auto parsed = parseChoice<IrisShape>(iris, 12, IrisType::getName);
    if (!parsed)
      return {"--iris wants SHAPE:STYLE with a shape such as CLASSIC, got \"" + iris + "\"", true};
    irisChoice = *parsed;
  }
  if (!background.empty()) {
    auto parsed = parseChoice<EyeContentType>(background, 2, BackgroundType::getName);
    if (!parsed)
      return {"--background wants COLOR:STYLE or IMAGE:STYLE, got \"" + background + "\"", true};
    backgroundChoice = *parsed;
  }

  // Offline: frames stay in memory whatever the environment says.
  setenv("EYE_LCD", "memory", 1);
  try {
    const int8_t status = EyeControl::initFrom(configDir, irisChoice.first, irisChoice.second,
                                               backgroundChoice.first, backgroundChoice.second);
    if (status == -1) return {"cannot read the catalogues in " + configDir};
    if (status < 0) return {"the panels did not come up"};
  } catch (const std::exception& e) {
    return {"the catalogues in " + configDir + " stop the library (" + e.what() +
            "); run `eyes lint " + configDir + "`"};
  }
  // A failed lookup leaves an image without pixels, which nothing can draw.
  if (EyeControl::default_iris.left.frames.empty() || EyeControl::default_iris.right.frames.empty())
    return {"no iris " + IrisType::getName(irisChoice.first) + ":" + irisChoice.second + " in " +
                configDir,
            !iris.empty()};
  if (EyeControl::default_background.left.frames.empty() ||
      EyeControl::default_background.right.frames.empty())
    return {"no background " + BackgroundType::getName(backgroundChoice.first) + ":" +
                backgroundChoice.second + " in " + configDir,
            !background.empty()};
  restPose = {EyeControl::Left_Eye.pose(), EyeControl::Right_Eye.pose()};
  return {};
}

void restEyes() {
  if (!restPose) return;
  EyeControl::Left_Eye.setPose((*restPose)[0]);
  EyeControl::Right_Eye.setPose((*restPose)[1]);
  EyeControl::SetFrames(EyeSide::BOTH);
}

Frame currentFrame() {
  return Frame{{LcdControl::lastFrame(0), LcdControl::lastFrame(1)}, {false, false}};
}

std::optional<std::vector<Frame>> renderAnimation(const std::string& name) {
  std::shared_ptr<EyeAnimation> animation = EyeControl::getAnimation(name);
  if (!animation || !restPose) return std::nullopt;
  restEyes();

  std::vector<Frame> frames;
  playFrames(*animation, frames);
  return frames;
}

std::vector<Frame> renderIdle(int seconds, uint64_t seed) {
  std::vector<Frame> frames;
  if (!restPose || seconds <= 0) return frames;
  restEyes();
  const size_t total = static_cast<size_t>(seconds) * 1000 / kFrameMs;
  frames.reserve(total);
  for (const IdleStep& step :
       IdleMotion::generate(IdleSettings{}, seed, EyeIdle::currentGaze(), seconds)) {
    // The panels keep their last picture through the still time.
    holdFrames(frames, static_cast<size_t>(step.delayMs / kFrameMs));
    playFrames(*step.animation, frames);
  }
  // The last animation may run past the end; the still time after it is held.
  if (frames.size() > total) frames.resize(total);
  holdFrames(frames, total - frames.size());
  return frames;
}

int animationFrameCount(const EyeAnimation& animation) {
  auto trackFrames = [](const EyeSideAnimation& track) {
    int frames = 0;
    for (const moveEvent& event : track.events)
      frames += std::max(1, event.move_ms / kFrameMs + event.wait_ms / kFrameMs);
    return frames;
  };
  return std::max(trackFrames(animation.left), trackFrames(animation.right));
}

Picture facePicture(const Frame& frame) {
  Picture picture{kFaceWidth, kFaceHeight, {}};
  static const std::vector<uint8_t> blank = [] {
    std::vector<uint8_t> rgb(static_cast<size_t>(kFaceWidth) * kFaceHeight * 3);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = kFace[i % 3];
    return rgb;
  }();
  picture.rgb = blank;
  copyPanel(frame.panels[0], picture, kMargin, kMargin);
  copyPanel(frame.panels[1], picture, kMargin + kPanel + kGap, kMargin);
  return picture;
}

std::vector<Picture> facePictures(const std::vector<Frame>& frames) {
  std::vector<Picture> pictures;
  pictures.reserve(frames.size());
  for (const Frame& frame : frames) pictures.push_back(facePicture(frame));
  return pictures;
}

bool writeWebp(const std::string& path, const std::vector<Picture>& faces, std::string& error) {
  WebPAnimEncoderOptions options;
  WebPConfig config;
  if (!WebPAnimEncoderOptionsInit(&options) || !WebPConfigInit(&config)) {
    error = "libwebp version mismatch";
    return false;
  }
  options.anim_params.loop_count = 0;
  // Lossless at the fastest effort: the frames differ little and compress well anyway.
  config.lossless = 1;
  config.method = 0;
  config.quality = 0;
  std::unique_ptr<WebPAnimEncoder, void (*)(WebPAnimEncoder*)> encoder(
      WebPAnimEncoderNew(kFaceWidth, kFaceHeight, &options), WebPAnimEncoderDelete);
  if (!encoder) {
    error = "cannot start the WebP encoder";
    return false;
  }
  int timestamp = 0;
  for (const Picture& face : faces) {
    WebPPicture picture;
    WebPPictureInit(&picture);
    picture.width = face.width;
    picture.height = face.height;
    picture.use_argb = 1;
    const bool added = WebPPictureImportRGB(&picture, face.rgb.data(), face.width * 3) &&
                       WebPAnimEncoderAdd(encoder.get(), &picture, timestamp, &config);
    WebPPictureFree(&picture);
    if (!added) {
      error = std::string("WebP encoding failed: ") + WebPAnimEncoderGetError(encoder.get());
      return false;
    }
    timestamp += kFrameMs;
  }
  WebPData data;
  WebPDataInit(&data);
  const bool assembled = WebPAnimEncoderAdd(encoder.get(), nullptr, timestamp, nullptr) &&
                         WebPAnimEncoderAssemble(encoder.get(), &data);
  bool ok = false;
  if (!assembled) {
    error = std::string("WebP assembly failed: ") + WebPAnimEncoderGetError(encoder.get());
  } else {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(data.bytes), static_cast<std::streamsize>(data.size));
    ok = static_cast<bool>(file);
    if (!ok) error = "cannot write " + path;
  }
  WebPDataClear(&data);
  return ok;
}

bool writeContactSheet(const std::string& path, const std::vector<Picture>& faces,
                       std::string& error, int columns, int every) {
  constexpr int kSpacing = 2;
  std::vector<Picture> cells;
  for (size_t i = 0; i < faces.size(); i += static_cast<size_t>(std::max(every, 1)))
    cells.push_back(halve(faces[i]));
  if (cells.empty()) {
    error = "no frames to write";
    return false;
  }
  const int across = std::min<int>(std::max(columns, 1), static_cast<int>(cells.size()));
  const int rows = (static_cast<int>(cells.size()) + across - 1) / across;
  const int cellW = cells[0].width, cellH = cells[0].height;
  Picture sheet{across * cellW + (across - 1) * kSpacing, rows * cellH + (rows - 1) * kSpacing, {}};
  // Spacing and unused cells in the face colour, so the sheet reads as one strip.
  sheet.rgb.resize(static_cast<size_t>(sheet.width) * sheet.height * 3);
  for (size_t i = 0; i < sheet.rgb.size(); ++i) sheet.rgb[i] = kFace[i % 3] / 2;
  for (size_t i = 0; i < cells.size(); ++i) {
    const int left = static_cast<int>(i) % across * (cellW + kSpacing);
    const int top = static_cast<int>(i) / across * (cellH + kSpacing);
    for (int y = 0; y < cellH; ++y)
      std::copy_n(&cells[i].rgb[static_cast<size_t>(y) * cellW * 3], cellW * 3,
                  &sheet.rgb[(static_cast<size_t>(top + y) * sheet.width + left) * 3]);
  }
  return writePicture(path, sheet, error);
}

bool writeFrameDirectory(const std::string& dir, const std::vector<Frame>& frames,
                         std::string& error) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) {
    error = "cannot create " + dir + ": " + ec.message();
    return false;
  }
  for (size_t i = 0; i < frames.size(); ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "frame_%04zu.png", i);
    if (!writePicture((fs::path(dir) / name).string(), facePicture(frames[i]), error)) return false;
  }
  return true;
}

bool writeRendering(const std::string& out, const std::vector<Frame>& frames, std::string& error,
                    int every) {
  const std::string extension = fs::path(out).extension().string();
  if (extension == ".webp") return writeWebp(out, facePictures(frames), error);
  if (extension == ".png") return writeContactSheet(out, facePictures(frames), error, 6, every);
  return writeFrameDirectory(out, frames, error);
}

}  // namespace eyes
