#include "render.h"

#include <webp/encode.h>
#include <webp/mux.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <tuple>

#include "EyeControl.h"
#include "EyeIdle.h"
#include "LcdControl.h"
#include "catalogue/CatalogueRules.h"
#include "look.h"

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

// "NAME:STYLE" -> (value of NAME in `names`, STYLE).
template <typename Enum>
std::optional<std::pair<Enum, std::string>> parseChoice(const std::string& text,
                                                        const std::vector<std::string>& names) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) return std::nullopt;
  for (size_t v = 0; v < names.size(); ++v)
    if (names[v] == text.substr(0, colon))
      return std::make_pair(static_cast<Enum>(v), text.substr(colon + 1));
  return std::nullopt;
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::vector<std::string> colorNames() {
  std::vector<std::string> names;
  for (int c = 0; c < static_cast<int>(ColorCode::COUNT); ++c)
    names.push_back(Color::getColorName(static_cast<ColorCode>(c)));
  return names;
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

// A 3 x 5 pixel font for frame labels: rows top to bottom, bit 2 the left column.
uint8_t glyphRow(char c, int row) {
  static const char* const kDigits[10][5] = {
      {"111", "101", "101", "101", "111"}, {"010", "110", "010", "010", "111"},
      {"111", "001", "111", "100", "111"}, {"111", "001", "111", "001", "111"},
      {"101", "101", "111", "001", "001"}, {"111", "100", "111", "001", "111"},
      {"111", "100", "111", "101", "111"}, {"111", "001", "001", "001", "001"},
      {"111", "101", "111", "101", "111"}, {"111", "101", "111", "001", "111"}};
  static const char* const kHash[5] = {"101", "111", "101", "111", "101"};
  static const char* const kDot[5] = {"000", "000", "000", "000", "010"};
  static const char* const kS[5] = {"000", "011", "100", "001", "110"};
  const char* const* glyph = nullptr;
  if (std::isdigit(static_cast<unsigned char>(c))) glyph = kDigits[c - '0'];
  if (c == '#') glyph = kHash;
  if (c == '.') glyph = kDot;
  if (c == 's') glyph = kS;
  if (glyph == nullptr) return 0;
  return static_cast<uint8_t>((glyph[row][0] == '1') << 2 | (glyph[row][1] == '1') << 1 |
                              (glyph[row][2] == '1'));
}

// Light text on a dark box at the picture's top left.
void label(Picture& picture, const std::string& text) {
  constexpr int kScale = 2, kPad = 2, kAdvance = 4 * kScale;
  const int boxW = std::min(picture.width, static_cast<int>(text.size()) * kAdvance + 2 * kPad);
  const int boxH = std::min(picture.height, 5 * kScale + 2 * kPad);
  auto pixel = [&](int x, int y) {
    return &picture.rgb[(static_cast<size_t>(y) * picture.width + x) * 3];
  };
  for (int y = 0; y < boxH; ++y)
    for (int x = 0; x < boxW; ++x) std::fill_n(pixel(x, y), 3, uint8_t{0});
  for (size_t i = 0; i < text.size(); ++i)
    for (int row = 0; row < 5; ++row)
      for (int column = 0; column < 3; ++column) {
        if (!(glyphRow(text[i], row) >> (2 - column) & 1)) continue;
        for (int dy = 0; dy < kScale; ++dy)
          for (int dx = 0; dx < kScale; ++dx) {
            const int x = kPad + static_cast<int>(i) * kAdvance + column * kScale + dx;
            const int y = kPad + row * kScale + dy;
            if (x < picture.width && y < picture.height) std::fill_n(pixel(x, y), 3, uint8_t{230});
          }
      }
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
  Look wanted = settingsLook();
  if (!iris.empty()) {
    auto parsed = parseChoice<IrisShape>(iris, catalogue::irisShapeNames());
    if (!parsed)
      return {"--iris wants SHAPE:STYLE with SHAPE one of " + joined(catalogue::irisShapeNames()) +
                  ", got \"" + iris + "\"",
              true};
    std::tie(wanted.irisShape, wanted.irisStyle) = *parsed;
  }
  if (!background.empty()) {
    auto parsed = parseChoice<EyeContentType>(background, catalogue::contentKindNames());
    if (!parsed)
      return {"--background wants COLOR:STYLE or IMAGE:STYLE, got \"" + background + "\"", true};
    std::tie(wanted.backgroundKind, wanted.backgroundStyle) = *parsed;
    // The library paints an unknown colour name black; asked for by name, that is a slip.
    const auto colors = colorNames();
    if (wanted.backgroundKind == EyeContentType::COLOR &&
        std::find(colors.begin(), colors.end(), wanted.backgroundStyle) == colors.end())
      return {"unknown colour \"" + wanted.backgroundStyle + "\"; colours are " + joined(colors),
              true};
  }
  const Look look = availableLook(configDir, wanted, !iris.empty(), !background.empty());

  // Offline: frames stay in memory whatever the environment says.
  setenv("EYE_LCD", "memory", 1);
  try {
    const int8_t status = EyeControl::initFrom(configDir, look.irisShape, look.irisStyle,
                                               look.backgroundKind, look.backgroundStyle);
    if (status == -1) return {"cannot read the catalogues in " + configDir};
    if (status < 0) return {"the panels did not come up"};
  } catch (const std::exception& e) {
    return {"the catalogues in " + configDir + " stop the library (" + e.what() +
            "); run `eyes lint " + configDir + "`"};
  }
  // A failed lookup leaves an image without pixels, which nothing can draw.
  if (EyeControl::default_iris.left.frames.empty() || EyeControl::default_iris.right.frames.empty())
    return {
        "no iris " + IrisType::getName(look.irisShape) + ":" + look.irisStyle + " in " + configDir,
        !iris.empty()};
  if (EyeControl::default_background.left.frames.empty() ||
      EyeControl::default_background.right.frames.empty())
    return {"the background " + BackgroundType::getName(look.backgroundKind) + ":" +
                look.backgroundStyle + " is not in " + configDir + " or its image does not load",
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
  for (size_t i = 0; i < faces.size(); i += static_cast<size_t>(std::max(every, 1))) {
    cells.push_back(halve(faces[i]));
    char text[32];
    std::snprintf(text, sizeof text, "#%zu %.2fs", i, i * kFrameMs / 1000.0);
    label(cells.back(), text);
  }
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

namespace {

enum class OutputKind { Webp, Sheet, Frames, Unknown };

OutputKind outputKind(const std::string& out) {
  std::string extension = fs::path(out).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (extension == ".webp") return OutputKind::Webp;
  if (extension == ".png") return OutputKind::Sheet;
  return extension.empty() ? OutputKind::Frames : OutputKind::Unknown;
}

constexpr const char* kFramePrefix = "frame_";

// frame_0000.png ... as writeFrameDirectory names them.
bool isOurFrame(const fs::path& file) {
  const std::string name = file.filename().string();
  return name.size() > 10 && name.compare(0, 6, kFramePrefix) == 0 &&
         name.compare(name.size() - 4, 4, ".png") == 0 &&
         std::all_of(name.begin() + 6, name.end() - 4,
                     [](unsigned char c) { return std::isdigit(c) != 0; });
}

}  // namespace

bool checkRenderingTarget(const std::string& out, int every, std::string& error) {
  const OutputKind kind = out.empty() ? OutputKind::Webp : outputKind(out);
  if (kind == OutputKind::Unknown) {
    error = "cannot write \"" + out +
            "\": use NAME.webp (animated WebP), NAME.png (contact sheet) or a NAME without "
            "extension (a directory of PNG frames)";
    return false;
  }
  if (every != 1 && kind != OutputKind::Sheet) {
    error = "--every applies to contact sheets (NAME.png) only";
    return false;
  }
  return true;
}

bool writeFrameDirectory(const std::string& dir, const std::vector<Frame>& frames,
                         std::string& error) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) {
    error = "cannot create " + dir + ": " + ec.message();
    return false;
  }
  // Old frames would read as part of this rendering; anything else is not ours to delete.
  std::vector<fs::path> old;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    if (!isOurFrame(entry.path())) {
      error = dir + " holds " + entry.path().filename().string() +
              ", which is not a frame of ours: choose an empty or new directory";
      return false;
    }
    old.push_back(entry.path());
  }
  for (const fs::path& file : old) fs::remove(file, ec);
  for (size_t i = 0; i < frames.size(); ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "%s%04zu.png", kFramePrefix, i);
    if (!writePicture((fs::path(dir) / name).string(), facePicture(frames[i]), error)) return false;
  }
  return true;
}

bool writeRendering(const std::string& out, const std::vector<Frame>& frames, std::string& error,
                    int every) {
  if (!checkRenderingTarget(out, every, error)) return false;
  switch (outputKind(out)) {
    case OutputKind::Webp:
      return writeWebp(out, facePictures(frames), error);
    case OutputKind::Sheet:
      return writeContactSheet(out, facePictures(frames), error, 6, every);
    default:
      return writeFrameDirectory(out, frames, error);
  }
}

}  // namespace eyes
