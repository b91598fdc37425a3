// The control socket's path: who may have it, and what is left behind.
#include "agent/control/ControlSocket.h"

#include "tests/agent/TestClient.h"

#include <gtest/gtest.h>

#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <vector>

namespace AgentTest {
namespace {

using Agent::ControlSocket;

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

Agent::Fd listening(const std::string& path, int backlog) {
    Agent::Fd socket(boundSocket(SOCK_STREAM, path));
    EXPECT_EQ(::listen(socket.get(), backlog), 0);
    return socket;
}

// Leaves a socket as an agent does that was killed.
void leaveSocket(const std::string& path) {
    listening(path, 1);
}

std::string refusalOf(const std::string& path) {
    try {
        const ControlSocket socket(path);
        return "(bound)";
    } catch (const std::exception& error) {
        return error.what();
    }
}

class ControlSocketTest : public testing::Test {
  protected:
    TemporaryFolder folder;
    const std::string path = folder.file("agent.sock");
};

TEST_F(ControlSocketTest, IsForItsOwnerAloneAndGoesWithTheAgent) {
    const mode_t before = ::umask(0);
    {
        const ControlSocket socket(path);
        struct stat status {};
        ASSERT_EQ(::lstat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFSOCK | 0600));
    }
    ::umask(before);
    EXPECT_FALSE(exists(path));
}

TEST_F(ControlSocketTest, ALeftoverIsReplacedAndALiveOneRespected) {
    leaveSocket(path);
    {
        const ControlSocket socket(path);
        EXPECT_EQ(refusalOf(path), "control socket " + path + ": another agent serves it");
        const TestClient client(path); // it was not disturbed
    }
    EXPECT_EQ(refusalOf(path), "(bound)");
}

TEST_F(ControlSocketTest, ALiveOneWithAFullQueueIsStillAlive) {
    const Agent::Fd busy = listening(path, 0);
    const TestClient waiting(path);
    EXPECT_EQ(refusalOf(path), "control socket " + path + ": another agent serves it");
}

TEST_F(ControlSocketTest, WhatIsNoSocketOrCanNotBeOneIsLeftAlone) {
    std::ofstream(path) << "precious";
    EXPECT_EQ(refusalOf(path), "control socket " + path + ": the file exists and is no socket");
    EXPECT_TRUE(exists(path));
    EXPECT_NE(refusalOf(folder.file("absent/agent.sock")).find("No such file or directory"),
              std::string::npos);
    EXPECT_EQ(refusalOf(""), "control socket '': the path is empty");
    const std::string tooLong = "/tmp/" + std::string(103, 'x');
    EXPECT_EQ(refusalOf(tooLong),
              "control socket " + tooLong + ": the path has 108 bytes, the system takes 107");
}

TEST_F(ControlSocketTest, ASocketThatIsNotItsOwnAnyMoreStays) {
    {
        const ControlSocket socket(path);
        ::unlink(path.c_str());
        leaveSocket(path);
    }
    EXPECT_TRUE(exists(path));
}

TEST_F(ControlSocketTest, OnlyAnotherStartCanHoldItUpAndNotForEver) {
    const Agent::Fd folderLock(::open(folder.file("").c_str(), O_RDONLY | O_DIRECTORY));
    ASSERT_EQ(::flock(folderLock.get(), LOCK_EX), 0);
    EXPECT_EQ(refusalOf(path), "(bound)"); // anyone may lock a folder
    EXPECT_FALSE(exists(path + ".lock"));

    const Agent::Fd lock(::open((path + ".lock").c_str(), O_RDWR | O_CREAT, 0600));
    EXPECT_EQ(refusalOf(path), "(bound)"); // left by a start that was killed
    const Agent::Fd held(::open((path + ".lock").c_str(), O_RDWR | O_CREAT, 0600));
    ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
    EXPECT_EQ(refusalOf(path), "control socket " + path + ": another start holds the lock " + path + ".lock");
    ASSERT_EQ(::fchmod(held.get(), 0666), 0);
    EXPECT_NE(refusalOf(path).find("is somebody else's"), std::string::npos);
}

TEST_F(ControlSocketTest, OfManyStartersOverALeftoverOneWins) {
    constexpr int starters = 8;
    for (int round = 0; round < 10; ++round) {
        leaveSocket(path);
        std::array<int, 2> go{};
        std::array<int, 2> done{};
        ASSERT_EQ(::pipe(go.data()) | ::pipe(done.data()), 0);
        std::vector<pid_t> children;
        for (int i = 0; i < starters; ++i) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::close(go[1]);
                char byte = 0;
                [[maybe_unused]] const ssize_t started = ::read(go[0], &byte, 1); // all start when it closes
                try {
                    const ControlSocket socket(path);
                    [[maybe_unused]] const ssize_t told = ::write(done[1], "w", 1);
                    ::pause();
                } catch (const std::exception&) {
                    [[maybe_unused]] const ssize_t told = ::write(done[1], "l", 1);
                }
                ::_exit(0);
            }
            children.push_back(child);
        }
        ::close(go[1]);
        std::string outcome;
        for (char byte = 0; outcome.size() < starters && ::read(done[0], &byte, 1) == 1;)
            outcome.push_back(byte);
        EXPECT_EQ(std::count(outcome.begin(), outcome.end(), 'w'), 1) << outcome;
        EXPECT_NO_THROW(TestClient{path}) << "the winner can't be reached";
        for (const pid_t child : children) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
        for (const int fd : {go[0], done[0], done[1]})
            ::close(fd);
        ::unlink(path.c_str());
    }
}

} // namespace
} // namespace AgentTest
