// The bundled default eye set, read with the library's readers: every image decodes
// in the shape the composer needs, and the animations use only what the set holds.
#include <Color.h>
#include <VContent.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "EyeControl.h"
#include "EyeControlReset.h"
#include "EyeTestSupport.h"

namespace {

const std::string kDir = EYE_ASSETS_DIR;

class BundledSet : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kDir + "/iris_type.xml")) GTEST_SKIP() << "eye set not built";
    eyetest::resetEyeControl();
    ASSERT_EQ(EyeControl::loadEyeFilesFrom(kDir), 0);
  }
  void TearDown() override {
    EXPECT_TRUE(log_.errors().empty()) << log_.errors().front();
    eyetest::resetEyeControl();
  }
  eyetest::LogCapture log_;
};

const uint8_t* pixel(const VContent& image, int x, int y) {
  const size_t bytes = image.frames[0].size() / (size_t{image.width} * image.height);
  return &image.frames[0][(static_cast<size_t>(y) * image.width + x) * bytes];
}

TEST_F(BundledSet, IrisesHaveClearCornersAndOneClassicStylePerColourName) {
  std::multiset<std::string> classicStyles;
  int irises = 0;
  for (const IrisType& group : EyeControl::iris_types)
    for (const Iris& iris : group.irises) {
      SCOPED_TRACE(iris.left);
      if (group.shape == IrisShape::CLASSIC) classicStyles.insert(iris.style);
      EyePart part;
      ASSERT_EQ(EyeControl::getIris(group.shape, iris.style, part), 0);
      for (const VContent* image : {&part.left, &part.right}) {
        ASSERT_EQ(image->frames.size(), 1u);
        ASSERT_GE(image->width, 100);
        ASSERT_LE(image->width, 128);
        ASSERT_EQ(image->frames[0].size(), size_t{image->width} * image->height * 4);
        EXPECT_EQ(pixel(*image, 0, 0)[3], 0);
        EXPECT_EQ(pixel(*image, image->width - 1, image->height - 1)[3], 0);
        EXPECT_EQ(pixel(*image, image->width / 2, image->height / 2)[3], 255);
      }
      ++irises;
    }
  EXPECT_GE(irises, 13);
  EXPECT_EQ(classicStyles.size(), static_cast<size_t>(ColorCode::COUNT));
  for (int c = 0; c < static_cast<int>(ColorCode::COUNT); ++c)
    EXPECT_EQ(classicStyles.count(Color::getColorName(static_cast<ColorCode>(c))), 1u);
}

TEST_F(BundledSet, BackgroundImagesAreFullPanels) {
  std::set<EyeContentType> kinds;
  int images = 0;
  for (const BackgroundType& group : EyeControl::background_types) {
    kinds.insert(group.type);
    for (const Background& background : group.backgrounds) {
      EyePart part;
      ASSERT_EQ(EyeControl::getBackground(group.type, background.style, part), 0);
      if (group.type != EyeContentType::IMAGE) continue;
      for (const VContent* image : {&part.left, &part.right})
        EXPECT_EQ(image->frames.at(0).size(), 240u * 240u * 3u) << background.left;
      ++images;
    }
  }
  EXPECT_EQ(kinds.size(), 2u);
  EXPECT_GE(images, 3);
}

TEST_F(BundledSet, EyelidIdsAreDenseAndImagesJoinTheirFillColour) {
  int sequences = 0;
  VContent::setBaseDirectory(kDir);
  for (size_t i = 0; i < EyeControl::lid_images.size(); ++i) {
    EyeLidPart& lid = EyeControl::lid_images[i];
    SCOPED_TRACE(lid.name);
    EXPECT_EQ(lid.id, i);              // position and id coincide
    if (lid.content.frames.empty()) {  // a sequence, loaded when first shown
      lid.content.loadSequence();
      ASSERT_TRUE(lid.content.isReady());
      EXPECT_EQ(lid.content.width, 240);
      EXPECT_GT(lid.content.frames.size(), 1u);
      ++sequences;
      continue;
    }
    const VContent& image = lid.content;
    ASSERT_EQ(image.width, 240);  // the composer addresses lid rows with a fixed stride
    EXPECT_EQ(lid.color[3], 255);
    // A top lid's first row, or a bottom lid's last row, is opaque skin in exactly the
    // fill colour painted beyond it, so no seam shows; somewhere the lid is clear.
    auto joins = [&](int row) {
      for (int x = 0; x < 240; ++x) {
        const uint8_t* p = pixel(image, x, row);
        if (p[3] != 255 || p[0] != lid.color[0] || p[1] != lid.color[1] || p[2] != lid.color[2])
          return false;
      }
      return true;
    };
    EXPECT_TRUE(joins(0) || joins(image.height - 1));
    bool clear = false;
    for (int y = 0; y < image.height && !clear; ++y)
      for (int x = 0; x < 240 && !clear; ++x) clear = pixel(image, x, y)[3] == 0;
    EXPECT_TRUE(clear);
  }
  EXPECT_GE(sequences, 1);
}

TEST_F(BundledSet, AnimationsUseEveryCategoryAndOnlyLidsThatExist) {
  std::set<std::string> names;
  std::set<int> ids, categories;
  for (const auto& animation : EyeControl::eye_animations) {
    SCOPED_TRACE(animation->name);
    EXPECT_TRUE(names.insert(animation->name).second) << "duplicate name";
    EXPECT_TRUE(ids.insert(animation->id).second) << "duplicate id";
    categories.insert(animation->categories.begin(), animation->categories.end());
    for (const EyeSideAnimation* track : {&animation->left, &animation->right}) {
      EXPECT_FALSE(track->events.empty());
      for (const moveEvent& e : track->events) {
        EXPECT_LT(e.top_lid_index, EyeControl::lid_images.size());
        EXPECT_LT(e.bot_lid_index, EyeControl::lid_images.size());
      }
    }
  }
  EXPECT_GE(names.size(), 16u);
  EXPECT_EQ(categories.size(), 11u);
  EXPECT_EQ(categories.count(EYEANIMATION_NONE), 0u);
}

}  // namespace
