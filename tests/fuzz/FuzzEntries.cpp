#include "FuzzEntries.h"

#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <tinyxml2.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <typeinfo>

#include "EyeControl.h"
#include "LoadEyeAnimations.h"
#include "VContent.h"
#include "catalogue/CatalogueRules.h"
#ifdef EYE_FUZZ_LINT
#include "lint.h"
#endif

namespace eyefuzz {
namespace {

// One scratch directory per process; readers take paths, so inputs go through a file.
// Relative image paths resolve against it and find nothing, which keeps runs fast:
// decoding is the PNG entry's business.
class Scratch {
 public:
  Scratch() {
    std::string pattern = (std::filesystem::temp_directory_path() / "eyefuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern;
    spdlog::set_level(spdlog::level::off);
  }
  ~Scratch() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  std::string write(const char* name, const uint8_t* data, size_t size) {
    VContent::setBaseDirectory(dir_);
    const std::string path = dir_ + "/" + name;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) throw std::runtime_error("cannot write " + path);
    if (size > 0) std::fwrite(data, 1, size, f);
    std::fclose(f);
    return path;
  }

 private:
  std::string dir_;
};

Scratch& scratch() {
  static Scratch s;
  return s;
}

// Runs one read; the missing-attribute failure the catalogue format documents is
// expected, everything else propagates.
template <typename Read>
void expectOnlyMissingAttribute(Read read) {
  try {
    read();
  } catch (const std::logic_error& e) {
    if (typeid(e) != typeid(std::logic_error) ||
        std::strcmp(e.what(), "basic_string: construction from null is not valid") != 0)
      throw;
  }
}

// The composer and the player index frames by width, height and layout: a loaded
// image must hold exactly what its size says.
void checkImage(const VContent& image) {
  if (image.frames.empty()) return;
  const size_t bpp = image.bytesPerPixel;
  if (bpp != 3 && bpp != 4) throw std::runtime_error("image with frames but no pixel layout");
  const size_t bytes = size_t{image.width} * image.height * bpp;
  for (const auto& frame : image.frames)
    if (frame.size() != bytes) throw std::runtime_error("frame size does not match the image");
}

// Plays every track through the motion arithmetic, bounded, as the player would.
void stepTracks(EyeAnimation& animation) {
  animation.ClearAnimation();
  for (EyeSideAnimation* track : {&animation.left, &animation.right}) {
    short xy[2] = {120, 120}, lid[2] = {0, 240};
    float scale[2] = {1.0f, 1.0f};
    for (int step = 0; step < 2000 && !track->events.empty(); ++step) {
      short nextXy[2], nextLid[2];
      float nextScale[2];
      if (!track->calculateXY(xy[0], xy[1], nextXy, scale[0], scale[1], nextScale, lid[0], lid[1],
                              nextLid))
        break;
      std::memcpy(xy, nextXy, sizeof xy);
      std::memcpy(scale, nextScale, sizeof scale);
      std::memcpy(lid, nextLid, sizeof lid);
    }
  }
}

// A category list longer than the format allows never finishes reading: the format's
// own limit, not a finding.
bool tooManyCategories(const std::string& path) {
  using namespace catalogue;
  tinyxml2::XMLDocument doc;
  if (doc.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) return false;
  bool tooMany = false;
  forEachEntry(doc.FirstChildElement(kRootElement), animationRule().element,
               [&](const tinyxml2::XMLElement* a) {
                 const char* categories = a->Attribute("Categories");
                 tooMany |=
                     categories != nullptr && splitCategories(categories).size() > kMaxCategories;
               });
  return tooMany;
}

std::string scratchFile(catalogue::CatalogueFile file, const uint8_t* data, size_t size) {
  return scratch().write(catalogue::fileName(file), data, size);
}

void irisCatalogue(const uint8_t* data, size_t size) {
  const std::string path = scratchFile(catalogue::CatalogueFile::Irises, data, size);
  expectOnlyMissingAttribute([&] { EyeControl::getIrisTypes(path.c_str()); });
}

void backgroundCatalogue(const uint8_t* data, size_t size) {
  const std::string path = scratchFile(catalogue::CatalogueFile::Backgrounds, data, size);
  expectOnlyMissingAttribute([&] { EyeControl::getBackgroundTypes(path.c_str()); });
}

void eyelidCatalogue(const uint8_t* data, size_t size) {
  const std::string path = scratchFile(catalogue::CatalogueFile::Eyelids, data, size);
  expectOnlyMissingAttribute([&] {
    for (const EyeLidPart& lid : EyeControl::get_LidImages(path.c_str())) checkImage(lid.content);
  });
}

void animationCatalogue(const uint8_t* data, size_t size) {
  const std::string path = scratchFile(catalogue::CatalogueFile::Animations, data, size);
  if (tooManyCategories(path)) return;
  expectOnlyMissingAttribute([&] {
    for (const auto& animation : LoadEyeAnimations::get_Animations(path.c_str()))
      stepTracks(*animation);
  });
}

// Whole image in both layouts, then the same file cut as a sprite sheet whose cell
// size and count come from the input's length.
void pngImage(const uint8_t* data, size_t size) {
  const std::string path = scratch().write("image.png", data, size);
  checkImage(VContent::getImage(path, true, true));
  checkImage(VContent::getImage(path, false, false));
  VContent sheet;
  sheet.path = path;
  sheet.width = static_cast<uint16_t>(1 + size % 61);
  sheet.height = static_cast<uint16_t>(1 + size % 37);
  sheet.frameTotal = static_cast<uint16_t>(size % 5);
  sheet.loadSequence();
  checkImage(sheet);
}

#ifdef EYE_FUZZ_LINT
// The catalogue checker on a directory whose four catalogues all hold the input: every
// reader of the checker sees it, and no input may make the checker throw or crash.
void lintCatalogues(const uint8_t* data, size_t size) {
  std::string path;
  for (const catalogue::CatalogueFile file : catalogue::kLoadOrder)
    path = scratchFile(file, data, size);
  eyes::lintCatalogues(std::filesystem::path(path).parent_path().string());
}
#endif

}  // namespace

// tests/fuzz/CMakeLists.txt builds one target per line of this table that starts with
// {"name", .
const std::vector<Entry>& entries() {
  static const std::vector<Entry> all = {
      {"iris_catalogue", irisCatalogue},
      {"background_catalogue", backgroundCatalogue},
      {"eyelid_catalogue", eyelidCatalogue},
      {"animation_catalogue", animationCatalogue},
      {"png", pngImage},
#ifdef EYE_FUZZ_LINT
      {"lint", lintCatalogues},
#endif
  };
  return all;
}

const Entry* findEntry(const std::string& name) {
  for (const Entry& entry : entries())
    if (name == entry.name) return &entry;
  return nullptr;
}

}  // namespace eyefuzz
