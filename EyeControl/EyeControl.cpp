// The facade's process-wide state, start-up, image lookup and appearance commands.
#include "EyeControl.h"

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
