// The eye studio: a local web page that shows both eyes live, plays and steps the
// catalogue's animations and edits them on the eyes.
#pragma once

#include <chrono>
#include <memory>
#include <string>

struct StudioOptions {
  std::string configDir;                        // the four catalogues and their images
  std::string host = "127.0.0.1";               // loopback only unless asked otherwise
  int port = 8765;                              // 0 picks a free port
  std::chrono::milliseconds pollInterval{500};  // how often the directory is looked at
};

class Studio {
 public:
  explicit Studio(StudioOptions options);
  ~Studio();
  Studio(const Studio&) = delete;
  Studio& operator=(const Studio&) = delete;

  // Brings the eyes up from the catalogues (or records why it cannot yet), binds
  // the port and serves, watches and plays on threads of its own. The port bound, or
  // -1 (then bindError() holds the errno of the failed bind, 0 when unknown).
  int start();
  int bindError() const;

  // The run's key: state-changing requests carry it in the X-Studio-Token header.
  const std::string& token() const;
  // Blocks until stop() is called.
  void wait();
  void stop();

  // Re-reads the catalogues when a file in the directory changed. The watcher calls
  // it; a caller that just wrote a file can call it to see the result at once.
  void reloadIfChanged();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// Runs the studio until the process is stopped; prints the address to open.
int runStudio(const StudioOptions& options);

// The page, built into the program.
extern const char* const kStudioPage;
