#include "tests/kernel/NetNamespace.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <stdexcept>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace Agent::Kernel::Test {
namespace {

bool writeFile(const char* path, const std::string& text) {
    std::ofstream file(path);
    file << text << std::flush;
    return static_cast<bool>(file);
}

// In a user namespace of our own we are root, as far as the network namespaces made in it go.
std::string enterUserNamespace() {
    std::string uid = std::to_string(getuid());
    std::string gid = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER) != 0)
        return std::string("unshare: ") + std::strerror(errno);
    writeFile("/proc/self/setgroups", "deny");
    if (!writeFile("/proc/self/uid_map", "0 " + uid + " 1") ||
        !writeFile("/proc/self/gid_map", "0 " + gid + " 1"))
        return "the user can't be mapped";
    return "";
}

} // namespace

std::string enterNetNamespace() {
    static const std::string userProblem = enterUserNamespace();
    if (!userProblem.empty())
        return userProblem;
    if (unshare(CLONE_NEWNET) != 0)
        return std::string("unshare: ") + std::strerror(errno);
    shell("ip link set lo up");
    return "";
}

bool netNamespaceRequired() {
    const char* required = std::getenv("KESTREL_REQUIRE_NETNS");
    return required && std::strcmp(required, "1") == 0;
}

void shell(const std::string& command) {
    FILE* pipe = popen(("{ " + command + "; } 2>&1").c_str(), "r");
    if (!pipe)
        throw std::system_error(errno, std::generic_category(), command);
    std::string output;
    char chunk[512];
    while (std::size_t size = fread(chunk, 1, sizeof chunk, pipe))
        output.append(chunk, size);
    if (pclose(pipe) != 0)
        throw std::runtime_error(command + ": " + output);
}

void makeInterfaces() {
    shell(R"(for i in 1 2 3 4; do
            echo "link add e$i type veth peer name p$i"
            echo "addr add 10.9.$i.1/24 dev e$i"
            echo "link set e$i up"
            echo "link set p$i up"
        done | ip -batch -)");
    shell("ip addr add 10.9.1.2/24 dev p1");
    for (const char* path :
         {"ip_forward=1", "conf/all/rp_filter=0", "conf/e1/rp_filter=0", "conf/e1/accept_local=1"}) {
        std::string setting = path;
        std::size_t equals = setting.find('=');
        if (!writeFile(("/proc/sys/net/ipv4/" + setting.substr(0, equals)).c_str(),
                       setting.substr(equals + 1)))
            throw std::runtime_error("can't set " + setting);
    }
}

Program::Program(const std::vector<std::string>& command)
    : pid_(started(command)) {
    if (pid_ < 0)
        throw std::system_error(errno, std::generic_category(), command.front());
}

pid_t Program::started(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        int nowhere = open("/dev/null", O_RDWR);
        dup2(nowhere, STDOUT_FILENO);
        dup2(nowhere, STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    return pid;
}

void Program::stop() {
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

} // namespace Agent::Kernel::Test
