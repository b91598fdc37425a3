#include "agent/control/ControlSocket.h"

#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace Agent {

namespace {

// How long a starter waits for another one that looks and binds at the same path.
constexpr std::chrono::milliseconds lockWait{1000};
constexpr std::chrono::milliseconds lockRetry{20};

[[noreturn]] void fail(const std::string& path, const std::string& why) {
    throw std::runtime_error("control socket " + path + ": " + why);
}

[[noreturn]] void failErrno(const std::string& path, const std::string& what) {
    fail(path, what + ": " + std::strerror(errno)); // NOLINT(concurrency-mt-unsafe): one thread
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty())
        fail("''", "the path is empty");
    if (path.size() >= sizeof address.sun_path)
        fail(path, "the path has " + std::to_string(path.size()) + " bytes, the system takes " +
                       std::to_string(sizeof address.sun_path - 1));
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

// The lock that keeps two starters apart: a file beside the socket, made for the purpose, that is there while a start
// lasts. It is the starter's own and nobody else can open it, so no neighbour can hold it.
class StartLock {
  public:
    explicit StartLock(const std::string& socketPath)
        : path_(socketPath + ".lock") {
        const auto end = std::chrono::steady_clock::now() + lockWait;
        while (!taken(socketPath)) {
            if (std::chrono::steady_clock::now() >= end)
                fail(socketPath, "another start holds the lock " + path_);
            std::this_thread::sleep_for(lockRetry);
        }
    }
    ~StartLock() {
        ::unlink(path_.c_str());
    } // still locked: who waits for this one finds another file, or none
    StartLock(const StartLock&) = delete;
    StartLock& operator=(const StartLock&) = delete;

  private:
    bool taken(const std::string& socketPath) {
        file_ = Fd(::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
        struct stat opened {};
        struct stat named {};
        if (!file_ || ::fstat(file_.get(), &opened) != 0)
            failErrno(socketPath, "can't make the lock " + path_);
        if (!S_ISREG(opened.st_mode) || opened.st_uid != ::geteuid() || (opened.st_mode & 077U) != 0)
            fail(socketPath,
                 "the lock " + path_ + " is somebody else's: remove it, or use a directory of your own");
        // Who held it before may have removed it meanwhile.
        return ::flock(file_.get(), LOCK_EX | LOCK_NB) == 0 && ::lstat(path_.c_str(), &named) == 0 &&
               named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
    }

    std::string path_;
    Fd file_;
};

Fd makeSocket(const std::string& path) {
    Fd made(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!made)
        failErrno(path, "can't make a socket");
    return made;
}

// Removes a socket that an agent left which has gone; fails on anything else that is there.
void removeLeftover(const std::string& path, const sockaddr_un& address) {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0) {
        if (errno == ENOENT)
            return;
        failErrno(path, "can't look at it");
    }
    if (!S_ISSOCK(found.st_mode))
        fail(path, "the file exists and is no socket");
    const Fd probe = makeSocket(path);
    const int result = ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (result == 0 || errno == EAGAIN)
        fail(path, "another agent serves it");
    if (errno != ECONNREFUSED)
        failErrno(path, "can't tell whether an agent serves it");
    if (::unlink(path.c_str()) != 0)
        failErrno(path, "can't remove the socket of an agent that has gone");
}

} // namespace

ControlSocket::ControlSocket(const std::string& path)
    : path_(path) {
    const sockaddr_un address = addressOf(path);
    const StartLock lock(path);
    removeLeftover(path, address);
    socket_ = makeSocket(path);
    // The file takes its mode from the socket, so there is no moment in which others could connect.
    if (::fchmod(socket_.get(), S_IRUSR | S_IWUSR) != 0)
        failErrno(path, "can't set its mode");
    if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        failErrno(path, "can't bind");
    struct stat made {};
    if (::listen(socket_.get(), SOMAXCONN) != 0 || ::lstat(path.c_str(), &made) != 0) {
        const int error = errno;
        ::unlink(path.c_str());
        errno = error;
        failErrno(path, "can't listen");
    }
    device_ = made.st_dev;
    inode_ = made.st_ino;
}

ControlSocket::~ControlSocket() {
    // Until the descriptor is closed the socket accepts, so no starter replaces the file between look and
    // removal.
    struct stat now {};
    if (::lstat(path_.c_str(), &now) == 0 && now.st_dev == device_ && now.st_ino == inode_)
        ::unlink(path_.c_str());
}

} // namespace Agent
