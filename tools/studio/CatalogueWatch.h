// Watches a catalogue directory and checks its catalogues before they are loaded.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lint.h"

namespace studio {

using eyes::Finding;

class CatalogueWatch {
 public:
  explicit CatalogueWatch(std::string dir);

  // True when a file under the directory appeared, vanished or was rewritten since
  // the last call (the first call reports a change).
  bool changed();

  // The checker's findings for the directory (file names relative to it), and an
  // error for any catalogue the library's own readers would stop on. The loaded
  // catalogues may be replaced only when there is no error.
  std::vector<Finding> check() const;

  const std::string& dir() const { return dir_; }

 private:
  struct Stamp {
    int64_t modified = 0;
    uintmax_t size = 0;
    bool operator!=(const Stamp& other) const {
      return modified != other.modified || size != other.size;
    }
  };
  std::map<std::string, Stamp> scan() const;

  std::string dir_;
  std::map<std::string, Stamp> stamps_;
  bool first_ = true;
};

}  // namespace studio
