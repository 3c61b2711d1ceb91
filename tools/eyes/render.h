// Offline rendering: plays catalogue animations on both eyes frame by frame, as fast
// as the machine allows, and writes what the two panels would show.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class EyeAnimation;

namespace eyes {

// Result of bringing the eyes up: empty `problem` when they are up.
struct BringUp {
  std::string problem;
  bool badArgument = false;  // the problem lies in `iris` / `background`, not the catalogues
  bool ok() const { return problem.empty(); }
};

// Brings both eyes up from the catalogues in `configDir`, frames kept in memory.
// `iris` is "SHAPE:STYLE" and `background` "TYPE:STYLE" (as in iris_type.xml and
// background_type.xml); empty means the settings' defaults, or what the catalogue
// has when it lacks them (availableLook). Call once per process.
BringUp bringUpEyes(const std::string& configDir, const std::string& iris = {},
                    const std::string& background = {});

// What the two panels show after one animation frame (12-bit packed, panel 0 = left
// eye), and which of them were written in that frame.
struct Frame {
  std::array<std::vector<uint8_t>, 2> panels;
  std::array<bool, 2> drawn{};
};

// Plays `name` from the rest pose the eyes had when brought up, one entry per 40 ms
// frame. Nothing when the catalogue has no such animation.
std::optional<std::vector<Frame>> renderAnimation(const std::string& name);

// `seconds` of idle motion (default IdleSettings) generated with `seed`, played from the
// rest pose through the same per-frame step: exactly seconds * 25 frames, the still time
// between the generated animations as held frames (nothing drawn).
std::vector<Frame> renderIdle(int seconds, uint64_t seed);

// Puts both eyes back in the pose they had when brought up and redraws them.
void restEyes();

// The panels as they are now (the rest pose right after bringUpEyes).
Frame currentFrame();

// Frames the animation plays for, from its events (no rendering).
int animationFrameCount(const EyeAnimation& animation);

// 8-bit RGB picture of both panels side by side on a dark face.
struct Picture {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgb;
};
Picture facePicture(const Frame& frame);
std::vector<Picture> facePictures(const std::vector<Frame>& frames);

constexpr int kFrameMs = 40;

// Lossless animated WebP, one picture per frame at 40 ms each.
bool writeWebp(const std::string& path, const std::vector<Picture>& faces, std::string& error);
// One PNG of half-size pictures of every `every`-th frame, `columns` across, each
// labelled with its frame number and time.
bool writeContactSheet(const std::string& path, const std::vector<Picture>& faces,
                       std::string& error, int columns = 6, int every = 1);
// DIR/frame_0000.png, ... one full-size picture per frame. Frames of an earlier
// rendering in DIR are removed first; a DIR holding anything else is refused.
bool writeFrameDirectory(const std::string& dir, const std::vector<Frame>& frames,
                         std::string& error);
// By the name, in any letter case: ".webp" animated WebP, ".png" contact sheet, no
// extension a frame directory. checkRenderingTarget refuses other names (and --every
// for anything but a sheet) before anything is rendered.
bool checkRenderingTarget(const std::string& out, int every, std::string& error);
bool writeRendering(const std::string& out, const std::vector<Frame>& frames, std::string& error,
                    int every = 1);

}  // namespace eyes
