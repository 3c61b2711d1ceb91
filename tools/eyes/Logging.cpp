#include "Logging.h"

#include <cstdio>
#include <set>

namespace eyes {
namespace {

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

void logToStderr(const std::string& program) {
  auto logger = std::make_shared<spdlog::logger>(program, std::make_shared<OnceToStderr>(program));
  logger->set_level(spdlog::default_logger()->level());
  spdlog::set_default_logger(logger);
}

}  // namespace eyes
