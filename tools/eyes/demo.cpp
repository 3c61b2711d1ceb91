// eyes demo: every animation of a catalogue as a WebP and a contact sheet, and one
// index.html that shows them all by category.
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <set>
#include <sstream>

#include "EyeControl.h"
#include "commands.h"
#include "lint.h"
#include "render.h"

namespace fs = std::filesystem;

namespace eyes {
namespace {

struct Rendered {
  std::string name;
  std::string file;  // base name of NAME.webp / NAME.png
  uint16_t id;
  size_t frames;
  std::vector<EyeAnimationCategory> categories;
};

// Animation names may hold anything; file names keep letters, digits, '-', '_' and '.'.
std::string fileNameFor(const std::string& name) {
  std::string out;
  for (char c : name)
    out +=
        (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.') ? c : '_';
  return out.empty() || out[0] == '.' ? "_" + out : out;
}

std::string escapeHtml(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

class Progress {
 public:
  explicit Progress(size_t total) : total_(total), terminal_(isatty(STDOUT_FILENO)) {}
  void step(size_t done, const std::string& name) {
    if (!terminal_) {
      std::printf("%zu/%zu %s\n", done, total_, name.c_str());
      return;
    }
    constexpr size_t kWidth = 30;
    const size_t filled = total_ ? done * kWidth / total_ : kWidth;
    std::printf("\r[%s%s] %zu/%zu %-24.24s", std::string(filled, '#').c_str(),
                std::string(kWidth - filled, '.').c_str(), done, total_, name.c_str());
    if (done == total_) std::printf("\n");
    std::fflush(stdout);
  }

 private:
  size_t total_;
  bool terminal_;
};

std::string figure(const Rendered& r, const std::string& meta) {
  const std::string file = escapeHtml(r.file);
  return "<figure><a href=\"" + file + ".png\"><img src=\"" + file + ".webp\" alt=\"" +
         escapeHtml(r.name) + "\" loading=\"lazy\"></a><figcaption>" + escapeHtml(r.name) +
         " <span class=\"meta\">" + meta + "</span></figcaption></figure>\n";
}

std::string durationText(size_t frames) {
  std::ostringstream text;
  text << frames * kFrameMs / 1000.0 << " s";
  return text.str();
}

bool writeIndex(const fs::path& path, const std::string& configDir, const Rendered& idle,
                const std::vector<Rendered>& all, bool broken) {
  std::map<int, std::vector<const Rendered*>> byCategory;
  for (const Rendered& r : all) {
    std::set<int> seen;
    for (EyeAnimationCategory c : r.categories)
      if (seen.insert(c < 12 ? c : 0).second) byCategory[c < 12 ? c : 0].push_back(&r);
    if (seen.empty()) byCategory[0].push_back(&r);
  }
  std::ofstream html(path);
  html
      << "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>Eye animations</title>\n"
         "<style>body{background:#15151a;color:#ddd;font-family:sans-serif;margin:2em}"
         "h2{border-bottom:1px solid #444;margin-top:2em}figure{display:inline-block;margin:.5em;"
         "vertical-align:top}img{width:280px;height:140px;display:block}figcaption{font-size:.85em;"
         "margin-top:.3em}a{color:#9cf}.meta{color:#888}"
         ".broken{background:#5a1d1d;color:#fdd;padding:.6em;border-radius:4px}</style></"
         "head><body>\n"
      << "<h1>Eye animations</h1>\n"
      << (broken ? "<p class=\"broken\">The catalogues have errors: what you see is not what they "
                   "say. Run <code>eyes lint --config " +
                       escapeHtml(configDir) + "</code> to see them.</p>\n"
                 : "")
      << "<p class=\"meta\">" << all.size() << " animations from " << escapeHtml(configDir)
      << ", both eyes as the panels show them (left eye on the left). "
      << "Click an animation for all its frames.</p>\n"
      << "<h2>Idle life</h2>\n"
      << figure(idle, "seed " + std::to_string(kDemoIdleSeed) + ", " + durationText(idle.frames) +
                          " of generated blinks and glances");
  for (const auto& [category, entries] : byCategory) {
    html << "<h2>" << categoryName(category) << "</h2>\n";
    for (const Rendered* r : entries)
      html << figure(*r, "#" + std::to_string(r->id) + ", " + durationText(r->frames));
  }
  html << "</body></html>\n";
  return static_cast<bool>(html);
}

}  // namespace

int runDemo(const DemoRequest& request) {
  const std::string& configDir = request.configDir;
  const std::string& outDir = request.out;
  const auto start = std::chrono::steady_clock::now();
  if (configDir.empty() || !fs::is_directory(configDir)) {
    std::fprintf(stderr, "eyes demo: no catalogue directory \"%s\"\n", configDir.c_str());
    return kExitUsage;
  }
  std::error_code ec;
  fs::create_directories(outDir, ec);
  if (ec) {
    std::fprintf(stderr, "eyes demo: cannot create %s: %s\n", outDir.c_str(), ec.message().c_str());
    return kExitUsage;
  }
  const bool broken = reportCatalogueErrors("eyes demo", configDir);
  if (const BringUp up = bringUpEyes(configDir, request.iris, request.background); !up.ok()) {
    std::fprintf(stderr, "eyes demo: %s\n", up.problem.c_str());
    return up.badArgument ? kExitUsage : kExitProblems;
  }

  std::printf("eyes up from %s: %zu animations\n", configDir.c_str(),
              EyeControl::eye_animations.size());
  std::vector<Rendered> rendered;
  std::set<std::string> names, files;
  Progress progress(EyeControl::eye_animations.size());
  // Encoding one animation overlaps with rendering the next (the frames are the
  // encoder's own copy; rendering touches only the library's state).
  std::future<std::string> writing;
  std::string failure;
  auto startWriting = [&](const fs::path& base, std::vector<Frame> frames, int every) {
    if (writing.valid() && failure.empty()) failure = writing.get();
    writing = std::async(std::launch::async, [base, every, frames = std::move(frames)] {
      std::string error;
      const std::vector<Picture> faces = facePictures(frames);
      if (!writeWebp(base.string() + ".webp", faces, error) ||
          !writeContactSheet(base.string() + ".png", faces, error, 6, every))
        return error;
      return std::string();
    });
  };

  // Idle life first: its sheet shows every fifth frame, a fifth of a second apart.
  Rendered idle{"Idle life", "idle_life", 0, 0, {}};
  files.insert(idle.file);
  std::vector<Frame> idleFrames = renderIdle(kDemoIdleSeconds, kDemoIdleSeed);
  idle.frames = idleFrames.size();
  startWriting(fs::path(outDir) / idle.file, std::move(idleFrames), 5);

  size_t done = 0;
  for (const auto& animation : EyeControl::eye_animations) {
    progress.step(done++, animation->name);
    // A second animation of the same name can never be played: show the first only.
    if (!names.insert(animation->name).second) continue;
    std::vector<Frame> frames = *renderAnimation(animation->name);
    if (frames.empty()) frames.push_back(currentFrame());
    Rendered entry{animation->name, fileNameFor(animation->name), animation->id, frames.size(),
                   animation->categories};
    while (!files.insert(entry.file).second) entry.file += "_";
    startWriting(fs::path(outDir) / entry.file, std::move(frames), 1);
    rendered.push_back(std::move(entry));
  }
  if (writing.valid() && failure.empty()) failure = writing.get();
  progress.step(done, "done");
  if (!failure.empty()) {
    std::fprintf(stderr, "eyes demo: %s\n", failure.c_str());
    return kExitUsage;
  }
  const fs::path index = fs::absolute(fs::path(outDir) / "index.html");
  if (!writeIndex(index, configDir, idle, rendered, broken)) {
    std::fprintf(stderr, "eyes demo: cannot write %s\n", index.c_str());
    return kExitUsage;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%zu animations rendered in %.1f s\nOpen file://%s in a browser to see them.\n",
              rendered.size(), seconds, index.c_str());
  if (broken)
    std::fprintf(stderr, "eyes demo: rendered, but the catalogues have errors (see above)\n");
  return broken ? kExitProblems : kExitOk;
}

}  // namespace eyes
