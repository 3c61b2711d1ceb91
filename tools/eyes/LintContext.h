// The machinery of `eyes lint` that every catalogue check uses: opening a catalogue,
// the entry walk and attribute checks by the catalogue rules, images decoded by the
// library's loader (each once), and the findings in loading order.
#pragma once

#include <tinyxml2.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Logging.h"
#include "VContent.h"
#include "lint.h"

namespace eyes {
namespace lintcheck {

namespace fs = std::filesystem;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;
using namespace catalogue;

inline constexpr const char* kCrashes = "the library stops with an exception at start-up";

inline std::string inQuotes(const std::string& text) {
  return "\"" + text + "\"";
}

inline std::string tag(const XMLElement* e) {
  return "<" + std::string(e->Name()) + ">";
}

struct ImageSize {
  unsigned width = 0;
  unsigned height = 0;
};

class LintContext {
 public:
  explicit LintContext(std::string dir) : dir_(std::move(dir)) {}

  // Everything reported, file by file in loading order, each file's by line.
  std::vector<Finding> findings() {
    std::stable_sort(findings_.begin(), findings_.end(), [](const Finding& a, const Finding& b) {
      return fileRank(a.file) != fileRank(b.file) ? fileRank(a.file) < fileRank(b.file)
                                                  : a.line < b.line;
    });
    return std::move(findings_);
  }

 protected:
  // Reports in the order the library loads the files.
  static size_t fileRank(const std::string& file) {
    const std::string name = fs::path(file).filename().string();
    for (size_t i = 0; i < kLoadOrder.size(); ++i)
      if (name == fileName(kLoadOrder[i])) return i;
    return kLoadOrder.size();
  }

  void report(int line, Severity severity, std::string message) {
    findings_.push_back({file_, line, severity, std::move(message)});
  }
  void error(const XMLElement* at, std::string message) {
    report(at ? at->GetLineNum() : 0, Severity::Error, std::move(message));
  }
  void warning(const XMLElement* at, std::string message) {
    report(at ? at->GetLineNum() : 0, Severity::Warning, std::move(message));
  }

  // Loads one catalogue and returns its root element, or null after reporting.
  const XMLElement* open(XMLDocument& doc, CatalogueFile file) {
    file_ = (fs::path(dir_) / fileName(file)).string();
    std::error_code ec;
    if (!fs::exists(file_, ec)) {
      report(0, Severity::Error, "file missing: the eyes do not start without it");
      return nullptr;
    }
    if (doc.LoadFile(file_.c_str()) != tinyxml2::XML_SUCCESS) {
      report(doc.ErrorLineNum(), Severity::Error,
             std::string("XML does not parse (") + doc.ErrorName() +
                 "): the catalogue is read as empty");
      return nullptr;
    }
    const XMLElement* list = doc.FirstChildElement(kRootElement);
    if (!list)
      report(1, Severity::Error,
             std::string("no <") + kRootElement + "> root element: the catalogue is read as empty");
    return list;
  }

  // The entries the library reads under `parent`, each with its attributes checked.
  std::vector<const XMLElement*> entries(const XMLElement* parent, const EntryRule& rule) {
    std::vector<const XMLElement*> result;
    const XMLElement* first = firstEntry(parent, rule.element);
    for (const XMLElement* e = parent->FirstChildElement(); e != first; e = e->NextSiblingElement())
      warning(e, tag(e) + " is ignored: only <" + rule.element + "> belongs under " + tag(parent));
    for (const XMLElement* e = first; e; e = nextEntry(e)) {
      if (std::string(e->Name()) != rule.element)
        error(e, tag(e) + " after the first <" + rule.element + "> is read as one more <" +
                     rule.element + ">");
      attributes(e, rule);
      result.push_back(e);
    }
    return result;
  }

  // Every attribute against the entry's rule: unknown ones, missing ones, and numbers
  // that do not read as written.
  void attributes(const XMLElement* e, const EntryRule& rule) {
    for (const tinyxml2::XMLAttribute* a = e->FirstAttribute(); a; a = a->Next()) {
      if (rule.find(a->Name())) continue;
      const char* near = rule.nearest(a->Name());
      warning(e, "unknown attribute " + std::string(a->Name()) + " is ignored" +
                     (near ? std::string("; did you mean ") + near + "?" : std::string()));
    }
    for (const AttributeRule& attribute : rule.attributes) {
      const char* raw = e->Attribute(attribute.name);
      const std::string name = attribute.name;
      const std::string limits = range(attribute);
      switch (attribute.kind) {
        case ValueKind::RequiredText:
          if (!raw) error(e, tag(e) + " has no " + name + ": " + kCrashes);
          break;
        case ValueKind::Text:
          break;
        case ValueKind::Int: {
          if (!raw) break;
          const auto value = readInt(raw);
          if (!value)
            error(e, name + "=" + inQuotes(raw) + " is not a whole number: the default " +
                         std::to_string(attribute.defaultValue) + " is used");
          else if (cutToField(*value, attribute) != *value)
            error(e, name + " " + std::to_string(*value) + " is outside " + limits +
                         ": stored as " + std::to_string(cutToField(*value, attribute)));
          break;
        }
        case ValueKind::Base0: {
          if (!raw) {
            error(e, tag(e) + " has no " + name + ": read as 0");
            break;
          }
          const Base0Reading r = readBase0(raw, attribute.bits, attribute.isSigned);
          if (!r.isNumber)
            error(e, name + "=" + inQuotes(raw) + " is not a number: read as 0");
          else if (r.trailing)
            error(e, name + "=" + inQuotes(raw) + " has text after the number: read as " +
                         std::to_string(r.stored));
          else if (!r.fits)
            error(e, name + " " + raw + " is outside " + limits + ": read as " +
                         std::to_string(r.stored));
          else if (r.octal)
            warning(e, name + "=" + inQuotes(raw) +
                           " starts with 0, which makes it octal: read as " +
                           std::to_string(r.stored) + "; drop the leading zero");
          break;
        }
        case ValueKind::Decimal:
          if (!raw)
            error(e, tag(e) + " has no " + name + ": read as 0");
          else if (!readDecimal(raw))
            error(e, name + "=" + inQuotes(raw) + " is not a number");
          break;
      }
    }
  }

  static std::string range(const AttributeRule& rule) {
    if (rule.bits == 0) return "";
    const long low = rule.isSigned ? -(1L << (rule.bits - 1)) : 0;
    const long high = rule.isSigned ? (1L << (rule.bits - 1)) - 1 : (1L << rule.bits) - 1;
    return std::to_string(low) + ".." + std::to_string(high);
  }

  fs::path resolve(const std::string& path) const {
    return fs::path(path).is_absolute() ? fs::path(path) : fs::path(dir_) / path;
  }

  // Why the library's loader refused an image, in its own words minus its prefix.
  static std::string reason(const LogCapture& capture, const std::string& resolved) {
    const auto lines = capture.lines();
    std::string text = lines.empty() ? "it holds no frames" : lines.back();
    const std::string prefix = "VContent: ";
    if (text.rfind(prefix, 0) == 0) text.erase(0, prefix.size());
    for (size_t at; (at = text.find(" " + resolved)) != std::string::npos;)
      text.erase(at, resolved.size() + 1);
    // libpng's words for a file that ends before its image data does.
    if (text.find("Read Error") != std::string::npos) text += " (the file is cut short)";
    if (text.find("too large") != std::string::npos)
      text += " (at most " + std::to_string(maxImagePixels()) + " pixels)";
    return text;
  }

  bool firstTime(const std::string& path, ImageUse use) {
    return checked_.insert({resolve(path).lexically_normal().string(), static_cast<int>(use)})
        .second;
  }

  // Decodes `path` as the library will and checks its size for `use`. Each image is
  // checked (and reported) once per use.
  void image(const XMLElement* e, const std::string& path, const std::string& what, ImageUse use) {
    if (!firstTime(path, use)) return;
    const std::string resolved = resolve(path).string();
    std::error_code ec;
    if (!fs::exists(resolved, ec)) {
      error(e, what + " " + inQuotes(path) + " does not exist");
      return;
    }
    std::optional<ImageSize> size;
    {
      LogCapture capture;
      const VContent loaded = VContent::getImage(resolved, decodesWithAlpha(use), true);
      if (loaded.frames.empty())
        error(e, what + " " + inQuotes(path) + " cannot be loaded: " + reason(capture, resolved));
      else
        size = ImageSize{loaded.width, loaded.height};
    }
    if (size) checkSize(e, path, what, use, *size);
  }

  void checkSize(const XMLElement* e, const std::string& path, const std::string& what,
                 ImageUse use, ImageSize size) {
    const std::string problem = sizeProblem(use, size.width, size.height);
    if (!problem.empty())
      error(e, what + " " + inQuotes(path) + " is " + std::to_string(size.width) + " x " +
                   std::to_string(size.height) + ", " + problem);
  }

  // Loads the sequence as the player will when the lid is first shown.
  void lidSequence(const XMLElement* data, const std::string& path) {
    if (!firstTime(path, ImageUse::LidSequence)) return;
    const EntryRule& rule = lidSequenceRule();
    const std::string resolved = resolve(path).string();
    std::error_code ec;
    if (!fs::exists(resolved, ec)) {
      error(data, "lid sequence " + inQuotes(path) + " does not exist");
      return;
    }
    VContent sequence;
    sequence.path = resolved;
    sequence.width = static_cast<uint16_t>(numberOf(data, rule, "w"));
    sequence.height = static_cast<uint16_t>(numberOf(data, rule, "h"));
    sequence.frameTotal = static_cast<uint16_t>(numberOf(data, rule, "ft"));
    {
      LogCapture capture;
      sequence.loadSequence();
      if (sequence.frames.empty()) {
        error(data,
              "lid sequence " + inQuotes(path) + " cannot be loaded: " + reason(capture, resolved));
        return;
      }
      // A sequence that loads with frames skipped still plays, but not as drawn.
      for (const std::string& line : capture.lines())
        warning(data, "lid sequence " + inQuotes(path) + ": " + line.substr(line.find(": ") + 2));
    }
    checkSize(data, path, "lid frames of", ImageUse::LidSequence,
              {sequence.width, sequence.height});
  }

 private:
  std::string dir_;
  std::string file_;
  std::set<std::pair<std::string, int>> checked_;
  std::vector<Finding> findings_;
};

}  // namespace lintcheck
}  // namespace eyes
