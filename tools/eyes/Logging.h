// How the tools treat the library's log: on stderr, apart from their own output, each
// line once; and held back on a thread where a tool reports the reason in its own words.
#pragma once

#include <string>
#include <vector>

namespace eyes {

// Makes the default logger write "PROGRAM: level: message" to stderr, without
// timestamps and without repeating a line it already wrote (both eyes load the same
// image, so the library reports a bad one twice).
void logToStderr(const std::string& program);

// While alive, what the library logs on this thread is kept here instead of being
// written; other threads log as before. The first capture in a process that did not
// call logToStderr puts a router in front of the default logger's sinks.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The messages logged on this thread, oldest first.
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  friend class RoutingSink;
  std::vector<std::string> lines_;
  LogCapture* outer_;
};

}  // namespace eyes
