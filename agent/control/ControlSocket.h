// The listening Unix socket behind a path: how it comes to be, and when its file goes.
//
// Two agents never serve one path. Who starts holds a lock (PATH.lock) while it looks and binds: a
// socket that accepts is respected, one that a dead agent left is replaced. The file has mode 0600 from its
// first moment, and is removed on close only while it is still this one.
//
// Sessions owns one. Read next: Sessions.h.
#pragma once

#include "agent/host/Fd.h"

#include <sys/types.h>

#include <string>

namespace Agent {

class ControlSocket {
  public:
    /// Binds and listens.
    /// @throws std::runtime_error naming the path: served by another agent, no socket, too long, not
    /// permitted, ...
    explicit ControlSocket(const std::string& path);
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

    int fd() const { return socket_.get(); }

  private:
    std::string path_;
    Fd socket_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

} // namespace Agent
