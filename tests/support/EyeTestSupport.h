// Shared helpers for the eye library's tests: captured log messages, temporary
// directories, and putting the process-wide eye state back between tests.
#pragma once

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace eyetest {

// Collects every message sent to spdlog's default logger while it lives.
class LogCapture {
 public:
  struct Entry {
    spdlog::level::level_enum level;
    std::string text;
  };

  LogCapture() : sink_(std::make_shared<Sink>()), previous_(spdlog::default_logger()) {
    auto logger = std::make_shared<spdlog::logger>("capture", sink_);
    logger->set_level(spdlog::level::trace);
    spdlog::set_default_logger(logger);
  }
  ~LogCapture() { spdlog::set_default_logger(previous_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Entry> entries() const {
    std::lock_guard<std::mutex> lock(sink_->entriesMutex);
    return sink_->entries;
  }
  std::vector<std::string> messages(spdlog::level::level_enum level) const {
    std::vector<std::string> out;
    for (const auto& e : entries())
      if (e.level == level) out.push_back(e.text);
    return out;
  }
  std::vector<std::string> errors() const { return messages(spdlog::level::err); }
  size_t count(const std::string& fragment) const {
    size_t n = 0;
    for (const auto& e : entries())
      if (e.text.find(fragment) != std::string::npos) ++n;
    return n;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(sink_->entriesMutex);
    sink_->entries.clear();
  }

 private:
  struct Sink : spdlog::sinks::base_sink<std::mutex> {
    std::vector<Entry> entries;
    mutable std::mutex entriesMutex;

   protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
      std::lock_guard<std::mutex> lock(entriesMutex);
      entries.push_back({msg.level, std::string(msg.payload.data(), msg.payload.size())});
    }
    void flush_() override {}
  };
  std::shared_ptr<Sink> sink_;
  std::shared_ptr<spdlog::logger> previous_;
};

// A fresh directory under the system's temporary directory, removed with its contents.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "eyetest-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string str() const { return path_.string() + "/"; }
  // Writes `content` to `name` (sub-directories created) and returns the full path.
  std::string write(const std::string& name, const std::string& content) const {
    auto file = path_ / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file.string();
  }

 private:
  std::filesystem::path path_;
};

}  // namespace eyetest
