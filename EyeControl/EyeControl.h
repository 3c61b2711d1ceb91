// The eye library's facade: process-wide state, start-up, appearance commands,
// catalogues, the animation player and eye blocks. All members are static.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Background.h"
#include "BlockEye.h"
#include "Color.h"
#include "EyeAnimation.h"
#include "EyeSide.h"
#include "Eyes.h"
#include "Iris.h"
#include "VContent.h"

class EyeControl {
 public:
  // Where the robot keeps its catalogues.
  static constexpr const char* kConfigDir = "/.tavi/config/eye/";

  // --- start-up and status ---
  // 1 already active, -1 catalogues not loaded, -2 LCD not initialised, 0 otherwise.
  static int8_t init(IrisShape shape, std::string irisStyle, EyeContentType backgroundType,
                     std::string backgroundStyle);
  static int8_t init(ColorCode irisColor, ColorCode backgroundColor);
  // init() with the catalogues of `dir` instead of the robot's configuration directory.
  static int8_t initFrom(const std::string& dir, IrisShape shape, std::string irisStyle,
                         EyeContentType backgroundType, std::string backgroundStyle);
  static bool isActive();
  static bool isAnimating();
  static float getVersion();
  static int8_t loadDefaultIris();
  static int8_t loadDefaultBackground();
  // Redraws the eye(s) `side` names from their current state.
  static int8_t SetFrames(EyeSide side);

  // --- catalogues ---
  // Loads the four catalogues of the configuration directory; 0, or -1 when one is missing.
  static int8_t loadEyeFiles();
  // The same for the catalogues in `dir` (relative image paths resolve against `dir`).
  static int8_t loadEyeFilesFrom(const std::string& dir);
  static std::vector<IrisType> getIrisTypes(const char* path);
  static std::vector<BackgroundType> getBackgroundTypes(const char* path);
  static std::vector<EyeLidPart> get_LidImages(const char* path);
  static int getLid(unsigned short index, EyeLidPart& out);

  // --- image lookup ---
  static int8_t getIris(IrisShape shape, std::string style, EyePart& part);
  static const char* getIrisPath(IrisShape shape, std::string style, bool left);
  static int8_t getBackground(EyeContentType type, std::string style, EyePart& part);
  static void FillBackgroundColor(EyePart& part, Color color, bool reduce);

  // --- appearance commands ---
  static int setIris(VContent* image, EyeSide side);
  static int setIris(IrisShape shape, ColorCode color, EyeSide side);
  static int setIris(EyePart part, EyeSide side);
  static int setBackground(Color color);
  static int setBackground(VContent* image, EyeSide side);
  static int setBackground(EyeContentType type, ColorCode color);
  static int setBackground(EyePart part, EyeSide side);
  static int setEyes(IrisShape shape, ColorCode irisColor, ColorCode backgroundColor);
  static int setLid(unsigned short topIndex, unsigned short bottomIndex, EyeSide side);
  static int setLid(VContent* image, bool top, EyeSide side);
  static int setPosition(EyeSide side, short x, short y, float scaleX, float scaleY,
                         unsigned char topLidY, unsigned char bottomLidY);
  static int SetEyePosition(bool left, short x, short y, float scaleX, float scaleY,
                            unsigned char topLidY, unsigned char bottomLidY);
  static int getIrisPosition(EyeSide side, short& x, short& y);

  // --- animations ---
  static std::shared_ptr<EyeAnimation> getAnimation(const std::string& name);
  static std::shared_ptr<EyeAnimation> getAnimation(std::string_view name);
  static std::shared_ptr<EyeAnimation> getAnimation(const char* name);  // resolves literals
  // Aborts what plays, then plays `name` on a worker; listeners hear `id`.
  // 0 started, -1 no animation of that name.
  static int8_t setAnimation(unsigned short id, std::string_view name);
  static int8_t processEyeAnimation(unsigned short id);
  // One frame of `animation` on both eyes, exactly as the player computes and draws it
  // every 40 ms, but without pacing, listeners or the worker's state. The caller has
  // rewound the animation (ClearAnimation) and set its state to PLAYING. Returns true
  // when a frame was computed; false once both tracks have ended, after setting the
  // state to COMPLETED (nothing is drawn then).
  static bool stepAnimationFrame(EyeAnimation& animation);
  // Stops the running worker, if any, and returns once it has finished.
  static void Abort();

  // --- eye blocks ---
  static int8_t ProcessEyeBlock(std::shared_ptr<BlockEye> block);
  static void ProcessEyes(std::shared_ptr<BlockEye> block);

  // --- process-wide state ---
  static std::atomic<uint8_t> active_type;
  static std::mutex mutex_eye_conrol;  // exported; never locked by the library
  static std::atomic<bool> is_processing;
  static std::atomic<bool> is_active;
  static std::shared_ptr<EyeAnimation> active_animation;
  static std::vector<BackgroundType> background_types;
  static std::vector<IrisType> iris_types;
  static EyePart default_background;
  static EyePart default_iris;
  static std::vector<EyeLidPart> lid_images;
  static std::vector<std::shared_ptr<EyeAnimation>> eye_animations;
  static Eyes Right_Eye;
  static Eyes Left_Eye;
};
