// A client of a pipe that doesn't keep to the rules of frames.
#pragma once

#include <string>
#include <vector>

#include "control/pipe_platform.h"

class RawPipe {
 public:
  explicit RawPipe(const std::string& name) {
    connected_ = host_service::pipe_platform::try_open(name, &pipe_) ==
                 host_service::pipe_platform::Open::Connected;
  }
  bool connected() const { return connected_; }
  bool send(const std::vector<unsigned char>& bytes) {
    return host_service::pipe_platform::send(*pipe_.end(), bytes.data(), bytes.size(), nullptr,
                                             host_service::pipe_platform::deadline_of(60'000)) ==
           bytes.size();
  }

 private:
  host_service::Pipe pipe_;
  bool connected_;
};
