#include "Logging.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <set>

namespace eyes {
namespace {

thread_local LogCapture* capturing = nullptr;

// Writes each distinct line once.
class OnceToStderr : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit OnceToStderr(std::string program) : program_(std::move(program)) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    const auto level = spdlog::level::to_string_view(msg.level);
    std::string line = program_ + ": " + std::string(level.data(), level.size()) + ": " +
                       std::string(msg.payload.data(), msg.payload.size());
    if (!seen_.insert(line).second) return;
    std::fprintf(stderr, "%s\n", line.c_str());
  }
  void flush_() override { std::fflush(stderr); }

 private:
  std::string program_;
  std::set<std::string> seen_;
};

}  // namespace

// Hands a message to the capture of its thread, or else to the sinks behind it.
class RoutingSink : public spdlog::sinks::sink {
 public:
  explicit RoutingSink(std::vector<spdlog::sink_ptr> next) : next_(std::move(next)) {}
  void log(const spdlog::details::log_msg& msg) override {
    if (capturing != nullptr) {
      capturing->lines_.emplace_back(msg.payload.data(), msg.payload.size());
      return;
    }
    for (const auto& sink : next_)
      if (sink->should_log(msg.level)) sink->log(msg);
  }
  void flush() override {
    for (const auto& sink : next_) sink->flush();
  }
  void set_pattern(const std::string& pattern) override {
    for (const auto& sink : next_) sink->set_pattern(pattern);
  }
  void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override {
    for (const auto& sink : next_) sink->set_formatter(formatter->clone());
  }

 private:
  std::vector<spdlog::sink_ptr> next_;
};

namespace {

std::once_flag routed;

void route(std::vector<spdlog::sink_ptr> next) {
  auto previous = spdlog::default_logger();
  auto logger = std::make_shared<spdlog::logger>(previous->name(),
                                                 std::make_shared<RoutingSink>(std::move(next)));
  logger->set_level(previous->level());
  spdlog::set_default_logger(logger);
}

}  // namespace

void logToStderr(const std::string& program) {
  std::call_once(routed, [&] { route({std::make_shared<OnceToStderr>(program)}); });
}

LogCapture::LogCapture() : outer_(capturing) {
  std::call_once(routed, [] { route(spdlog::default_logger()->sinks()); });
  capturing = this;
}

LogCapture::~LogCapture() {
  capturing = outer_;
}

}  // namespace eyes
