// The studio's HTTP endpoints: the page, JSON for the page, and the guard that keeps
// other web pages out.
#pragma once

#include <httplib.h>

#include <string>

#include "Session.h"

namespace studio {

// Who may talk to the studio: requests must name it by a loopback Host with its own
// port, come from no other Origin, and state-changing ones must carry the run's token.
struct Guard {
  std::string token;
  std::string host;  // the address it listens on
  int port = 0;

  // Empty when the request may pass, else why not.
  std::string refuse(const httplib::Request& req) const;
};

void addRoutes(httplib::Server& server, Session& session, const Guard& guard);

}  // namespace studio
