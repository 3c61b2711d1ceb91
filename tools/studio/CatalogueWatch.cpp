#include "CatalogueWatch.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "EyeControl.h"
#include "LoadEyeAnimations.h"
#include "VContent.h"

namespace fs = std::filesystem;

namespace studio {

namespace {

constexpr const char* kCatalogues[] = {"eyeanimations.xml", "background_type.xml", "eyelid.xml",
                                       "iris_type.xml"};

// Runs one of the library's readers on `path` and counts the entries it read; a
// reader stops with an exception when a required attribute is missing.
size_t readWith(int catalogue, const std::string& path) {
  switch (catalogue) {
    case 0:
      return LoadEyeAnimations::get_Animations(path.c_str()).size();
    case 1:
      return EyeControl::getBackgroundTypes(path.c_str()).size();
    case 2:
      return EyeControl::get_LidImages(path.c_str()).size();
    default:
      return EyeControl::getIrisTypes(path.c_str()).size();
  }
}

}  // namespace

CatalogueWatch::CatalogueWatch(std::string dir) : dir_(std::move(dir)) {
  if (!dir_.empty() && dir_.back() != '/') dir_ += '/';
}

std::map<std::string, CatalogueWatch::Stamp> CatalogueWatch::scan() const {
  std::map<std::string, Stamp> stamps;
  std::error_code error;
  // Files being written or removed while we look are picked up by the next scan.
  for (fs::recursive_directory_iterator it(dir_, error), end; !error && it != end;
       it.increment(error)) {
    std::error_code statError;
    if (!it->is_regular_file(statError)) continue;
    Stamp stamp;
    stamp.modified = it->last_write_time(statError).time_since_epoch().count();
    stamp.size = it->file_size(statError);
    if (!statError) stamps[it->path().string()] = stamp;
  }
  return stamps;
}

bool CatalogueWatch::changed() {
  auto stamps = scan();
  const bool result = first_ || stamps.size() != stamps_.size() || [&] {
    for (const auto& [path, stamp] : stamps) {
      const auto known = stamps_.find(path);
      if (known == stamps_.end() || known->second != stamp) return true;
    }
    return false;
  }();
  first_ = false;
  stamps_ = std::move(stamps);
  return result;
}

std::vector<Finding> CatalogueWatch::check() const {
  std::vector<Finding> findings = eyes::lintCatalogues(dir_);
  for (Finding& f : findings) f.file = fs::path(f.file).lexically_relative(dir_).string();
  if (eyes::hasErrors(findings)) return findings;

  // Relative image paths in the catalogues are taken from the directory. Set only
  // when it differs, since a playing animation may be reading it.
  if (VContent::baseDirectory() != dir_) VContent::setBaseDirectory(dir_);
  for (int catalogue = 0; catalogue < 4; ++catalogue) {
    const auto error = [&](std::string message) {
      findings.push_back({kCatalogues[catalogue], 0, eyes::Severity::Error, std::move(message)});
    };
    try {
      // The eyes always show some lid image, so they need at least one.
      if (readWith(catalogue, dir_ + kCatalogues[catalogue]) == 0 && catalogue == 2)
        error("no eyelid images: the eyes need at least one");
    } catch (const std::exception& e) {
      error(std::string("the library cannot read it: ") + e.what());
    }
  }
  return findings;
}

}  // namespace studio
