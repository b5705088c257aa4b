// Sets the fields of a service that the agent itself never sets (no setter exists for them).
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "src/service/service.h"

class ServiceTestPeer {
 public:
  static void setExecTime(service& s, std::int64_t seconds, std::int64_t microseconds) {
    s.execTimeSec_ = seconds;
    s.execTimeuSec_ = microseconds;
  }
  static void setAlertingSoftware(service& s, std::string path) {
    s.alertingSoftware_ = std::move(path);
  }
};
