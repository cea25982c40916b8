#include "Support/NetNamespace.hpp"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace veltrane::test {

namespace {

std::string quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out += c;
        }
    }
    return out + "'";
}

std::string randomName() {
    std::random_device device;
    std::uniform_int_distribution<unsigned> digit(0, 15);
    std::string name = "vt-";
    for (int i = 0; i < 8; ++i) {
        name += "0123456789abcdef"[digit(device)];
    }
    return name;
}

NetNamespace::Result runCommand(const std::string& command) {
    NetNamespace::Result result;
    std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        result.output = std::strerror(errno);
        return result;
    }
    std::array<char, 4096> buffer;
    std::size_t count = 0;
    while ((count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        result.output.append(buffer.data(), count);
    }
    int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

} // namespace

std::unique_ptr<NetNamespace> NetNamespace::create(std::string& whyNot) {
    if (::geteuid() != 0) {
        whyNot = "network namespaces need root";
        return nullptr;
    }
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::string name = randomName();
        Result added = runCommand("ip netns add " + name);
        if (!added.ok()) {
            whyNot = "ip netns add failed: " + added.output;
            continue;
        }
        int fd = ::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            whyNot = "cannot open the namespace: " + std::string(std::strerror(errno));
            runCommand("ip netns del " + name);
            return nullptr;
        }
        return std::unique_ptr<NetNamespace>(new NetNamespace(std::move(name), fd));
    }
    return nullptr;
}

NetNamespace::NetNamespace(std::string name, int fd) : name_(std::move(name)), fd_(fd) {}

NetNamespace::~NetNamespace() {
    for (const auto& link : links_) {
        runCommand("ip -n " + name_ + " link del " + link);
    }
    ::close(fd_);
    runCommand("ip netns del " + name_);
}

NetNamespace::Result NetNamespace::run(const std::string& command) const {
    return runCommand("ip netns exec " + name_ + " sh -c " + quoted(command));
}

bool NetNamespace::must(const std::string& command) const {
    Result result = run(command);
    if (!result.ok()) {
        ADD_FAILURE() << "in " << name_ << ": `" << command << "` exited " << result.status << ": "
                      << result.output;
    }
    return result.ok();
}

bool NetNamespace::addVeth(const std::string& localName, const NetNamespace& peer,
                           const std::string& peerName) {
    Result result = runCommand("ip -n " + name_ + " link add " + localName +
                               " type veth peer name " + peerName + " netns " + peer.name_);
    if (!result.ok()) {
        ADD_FAILURE() << "veth " << localName << "/" << peerName << ": " << result.output;
        return false;
    }
    links_.push_back(localName);
    return true;
}

NetNamespace::Entered NetNamespace::enter() const {
    return Entered(fd_);
}

NetNamespace::Entered::Entered(int namespaceFd) {
    originalFd_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (originalFd_ < 0) {
        ADD_FAILURE() << "cannot open this thread's namespace: " << std::strerror(errno);
        return;
    }
    ok_ = ::setns(namespaceFd, CLONE_NEWNET) == 0;
    if (!ok_) {
        ADD_FAILURE() << "setns: " << std::strerror(errno);
    }
}

NetNamespace::Entered::Entered(Entered&& other) noexcept
    : originalFd_(other.originalFd_), ok_(other.ok_) {
    other.originalFd_ = -1;
    other.ok_ = false;
}

NetNamespace::Entered::~Entered() {
    if (originalFd_ < 0) {
        return;
    }
    if (ok_ && ::setns(originalFd_, CLONE_NEWNET) != 0) {
        // A thread left in a test namespace would put every later socket
        // there; stop rather than carry on in the wrong place.
        std::fprintf(stderr, "cannot return to the original namespace: %s\n", std::strerror(errno));
        std::abort();
    }
    ::close(originalFd_);
}

} // namespace veltrane::test
