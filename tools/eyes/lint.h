// Checks a catalogue directory for everything that would make the eyes start badly,
// play differently from what the file seems to say, or not start at all. How entries
// and numbers are read comes from catalogue/CatalogueRules; images are decoded by the
// library's own loader.
#pragma once

#include <string>
#include <vector>

#include "catalogue/CatalogueRules.h"

namespace eyes {

enum class Severity { Warning, Error };

struct Finding {
  std::string file;  // as reached from the directory given to lintCatalogues
  int line = 0;      // 0 when the finding concerns the whole file
  Severity severity = Severity::Error;
  std::string message;
};

// Reads the four catalogues of `dir` (and the images they name) and returns every
// problem found, file by file in loading order, each file's findings by line.
std::vector<Finding> lintCatalogues(const std::string& dir);

// "FILE:LINE: error|warning: message" (no ":LINE" for whole-file findings).
std::string formatFinding(const Finding& finding);

bool hasErrors(const std::vector<Finding>& findings);

inline std::string categoryName(int category) {
  return catalogue::categoryName(category);
}

}  // namespace eyes
