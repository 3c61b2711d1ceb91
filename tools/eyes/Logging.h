// How the tools treat the library's log: on stderr, apart from their own output, each
// line once; and held back where a tool reports the reason in its own words.
#pragma once

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace eyes {

// Makes the default logger write "PROGRAM: level: message" to stderr, without
// timestamps and without repeating a line it already wrote (both eyes load the same
// image, so the library reports a bad one twice).
void logToStderr(const std::string& program);

class LogCapture {
 public:
  LogCapture() : sink_(std::make_shared<Sink>()), previous_(spdlog::default_logger()) {
    auto logger = std::make_shared<spdlog::logger>("capture", sink_);
    logger->set_level(spdlog::level::warn);
    spdlog::set_default_logger(logger);
  }
  ~LogCapture() { spdlog::set_default_logger(previous_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Messages logged at warning level or above, oldest first.
  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> lock(sink_->lock);
    return sink_->lines;
  }

 private:
  struct Sink : spdlog::sinks::base_sink<std::mutex> {
    std::mutex lock;
    std::vector<std::string> lines;
    void sink_it_(const spdlog::details::log_msg& msg) override {
      std::lock_guard<std::mutex> guard(lock);
      lines.emplace_back(msg.payload.data(), msg.payload.size());
    }
    void flush_() override {}
  };
  std::shared_ptr<Sink> sink_;
  std::shared_ptr<spdlog::logger> previous_;
};

}  // namespace eyes
