#include "Studio.h"

#include <httplib.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <thread>

#include "EyeControl.h"
#include "FrameHub.h"
#include "Routes.h"
#include "Session.h"

namespace {

constexpr auto kFramePeriod = std::chrono::milliseconds(40);

// 128 random bits as hex: the key a page needs to change anything.
std::string newToken() {
  std::random_device random;
  std::string token;
  for (int i = 0; i < 4; ++i) {
    char part[9];
    std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(random()));
    token += part;
  }
  return token;
}

}  // namespace

struct Studio::Impl {
  explicit Impl(StudioOptions opts) : options(std::move(opts)), session(options.configDir, hub) {
    guard.token = newToken();
    guard.host = options.host;
  }

  StudioOptions options;
  std::shared_ptr<studio::FrameHub> hub = std::make_shared<studio::FrameHub>();
  studio::Session session;
  studio::Guard guard;
  httplib::Server server;
  std::thread serverThread, watchThread, playerThread;
  std::mutex stopMutex;
  std::condition_variable stopSignal;
  bool stopping = false;
  int bindError = 0;

  // Runs `work` every `period()` until stop(); the first run after one period.
  template <typename Period, typename Work>
  std::thread every(Period period, Work work) {
    return std::thread([this, period, work] {
      std::unique_lock<std::mutex> lock(stopMutex);
      auto due = std::chrono::steady_clock::now() + period();
      while (!stopSignal.wait_until(lock, due, [&] { return stopping; })) {
        lock.unlock();
        work();
        lock.lock();
        due = std::max(due + period(), std::chrono::steady_clock::now());
      }
    });
  }
};

Studio::Studio(StudioOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Studio::~Studio() {
  stop();
}

int Studio::start() {
  Impl& s = *impl_;
  reloadIfChanged();
  // Address reuse only: a second studio on a port in use must fail, not share it.
  s.server.set_socket_options([](socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  errno = 0;
  const int port =
      s.options.port == 0
          ? s.server.bind_to_any_port(s.options.host)
          : (s.server.bind_to_port(s.options.host, s.options.port) ? s.options.port : -1);
  if (port < 0) {
    s.bindError = errno;
    return -1;
  }
  s.guard.port = port;
  studio::addRoutes(s.server, s.session, s.guard);
  s.serverThread = std::thread([&s] { s.server.listen_after_bind(); });
  s.watchThread = s.every([&s] { return s.options.pollInterval; }, [this] { reloadIfChanged(); });
  s.playerThread = s.every([&s] { return kFramePeriod * s.session.slowdown.load(); },
                           [&s] {
                             std::lock_guard<std::mutex> lock(s.session.commands);
                             s.session.tick();
                           });
  return port;
}

int Studio::bindError() const {
  return impl_->bindError;
}

const std::string& Studio::token() const {
  return impl_->guard.token;
}

void Studio::wait() {
  std::unique_lock<std::mutex> lock(impl_->stopMutex);
  impl_->stopSignal.wait(lock, [&] { return impl_->stopping; });
}

void Studio::stop() {
  Impl& s = *impl_;
  {
    std::lock_guard<std::mutex> lock(s.stopMutex);
    if (s.stopping) return;
    s.stopping = true;
  }
  s.stopSignal.notify_all();
  s.hub->close();
  s.server.stop();
  for (std::thread* t : {&s.serverThread, &s.watchThread, &s.playerThread})
    if (t->joinable()) t->join();
  EyeControl::Abort();
}

void Studio::reloadIfChanged() {
  std::lock_guard<std::mutex> lock(impl_->session.commands);
  impl_->session.reloadIfChanged();
}

int runStudio(const StudioOptions& options) {
  std::error_code error;
  if (options.configDir.empty() || !std::filesystem::is_directory(options.configDir, error)) {
    std::fprintf(stderr, "eyes studio: no catalogue folder at \"%s\" (--config DIR)\n",
                 options.configDir.c_str());
    return 2;
  }
  Studio studio(options);
  const int port = studio.start();
  if (port < 0) {
    const int why = studio.bindError();
    if (why == EADDRINUSE)
      std::fprintf(stderr, "eyes studio: port %d on %s is in use (is another studio running?)\n",
                   options.port, options.host.c_str());
    else
      std::fprintf(stderr, "eyes studio: cannot listen on %s:%d: %s\n", options.host.c_str(),
                   options.port, why ? std::strerror(why) : "refused");
    return 2;
  }
  std::printf("Eye studio for %s\nopen http://%s:%d/?token=%s\n",
              std::filesystem::absolute(options.configDir).string().c_str(), options.host.c_str(),
              port, studio.token().c_str());
  std::fflush(stdout);
  studio.wait();
  return 0;
}
