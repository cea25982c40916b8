#include "Support/Peers.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <pwd.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace veltrane::test {

namespace {

using Clock = std::chrono::steady_clock;

// Between two looks at something that has no event to wait on (a child's
// listening socket, a child's exit).
void pause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

bool accepts(std::uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

bool executable(const std::string& path) {
    return ::access(path.c_str(), X_OK) == 0;
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    out.close();
    ::chmod(path.c_str(), 0644);
}

// Every process below `root`, read from /proc. Only processes in another
// group need this; the rest end with the group.
std::vector<pid_t> descendantsOf(pid_t root) {
    std::vector<std::pair<pid_t, pid_t>> parents; // (pid, parent)
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const auto name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        std::getline(stat, line);
        // "pid (comm) state ppid ...": comm may hold spaces and parentheses.
        auto close = line.rfind(')');
        if (close == std::string::npos) {
            continue;
        }
        std::istringstream rest(line.substr(close + 1));
        std::string state;
        pid_t parent = 0;
        if (rest >> state >> parent) {
            parents.emplace_back(static_cast<pid_t>(std::stol(name)), parent);
        }
    }
    std::vector<pid_t> found{root};
    for (std::size_t i = 0; i < found.size(); ++i) {
        for (const auto& [pid, parent] : parents) {
            if (parent == found[i]) {
                found.push_back(pid);
            }
        }
    }
    found.erase(found.begin());
    return found;
}

} // namespace

int boundLoopback(int type, std::uint16_t& port) {
    int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(fd);
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}

std::uint16_t freeLoopbackPort(int type) {
    std::uint16_t port = 0;
    const int fd = boundLoopback(type, port);
    if (fd < 0) {
        return 0;
    }
    ::close(fd);
    return port;
}

PeerProcess::PeerProcess(pid_t pid, std::uint16_t port, std::string directory)
    : pid_(pid), port_(port), directory_(std::move(directory)) {}

PeerProcess::~PeerProcess() {
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void PeerProcess::stop() {
    if (pid_ <= 0) {
        return;
    }
    // Helpers that left the group (squid puts each in a session of its own)
    // are found by parentage, while the server is still alive to be their
    // parent.
    auto helpers = descendantsOf(pid_);
    // The group is ours: the server and whatever it forked.
    ::kill(-pid_, SIGTERM);
    auto deadline = Clock::now() + std::chrono::seconds(5);
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0 && Clock::now() < deadline) {
        pause();
    }
    // Whatever is left of the group, children the server orphaned included:
    // as a subreaper this process inherited them and reaps them here.
    ::kill(-pid_, SIGKILL);
    while (::waitpid(-pid_, &status, 0) > 0) {
    }
    // With the server gone its helpers are this process's children (it is a
    // subreaper); one not ours any more was reaped by the server already.
    for (pid_t helper : helpers) {
        if (::waitpid(helper, &status, WNOHANG) == 0) {
            ::kill(helper, SIGKILL);
            ::waitpid(helper, &status, 0);
        }
    }
    pid_ = -1;
}

std::string PeerProcess::log() const {
    std::ifstream in(directory_ + "/log");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::unique_ptr<PeerProcess> PeerProcess::start(const Launch& launch, std::string& whyNot) {
    if (!executable(launch.program)) {
        whyNot = launch.program + " is not installed";
        return nullptr;
    }
    // Servers that fork (danted) leave their children behind when they end;
    // those come to this process instead of init, so stop() can reap them.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::string pattern = "/tmp/vt-" + launch.name + "-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            whyNot = std::string("mkdtemp: ") + std::strerror(errno);
            return nullptr;
        }
        ::chmod(pattern.c_str(), 0755);
        std::uint16_t port = freeLoopbackPort(SOCK_STREAM);
        auto arguments = launch.arguments(pattern, port);
        std::vector<char*> argv;
        for (auto& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        std::string logPath = pattern + "/log";

        pid_t pid = ::fork();
        if (pid < 0) {
            whyNot = std::string("fork: ") + std::strerror(errno);
            return nullptr;
        }
        if (pid == 0) {
            ::setpgid(0, 0);
            int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int null = ::open("/dev/null", O_RDONLY);
            if (log >= 0) {
                ::dup2(log, STDOUT_FILENO);
                ::dup2(log, STDERR_FILENO);
            }
            if (null >= 0) {
                ::dup2(null, STDIN_FILENO);
            }
            ::execv(launch.program.c_str(), argv.data());
            ::_exit(127);
        }
        ::setpgid(pid, pid); // also from here, so the group exists before any kill
        std::unique_ptr<PeerProcess> process(new PeerProcess(pid, port, pattern));

        auto deadline = Clock::now() + std::chrono::seconds(10);
        bool exited = false;
        while (Clock::now() < deadline) {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid) {
                exited = true;
                process->pid_ = -1;
                break;
            }
            if (accepts(port)) {
                return process;
            }
            pause();
        }
        whyNot = launch.name + " did not start on port " + std::to_string(port) +
                 (exited ? " (it exited)" : " (timed out)") + ":\n" + process->log();
        // Another attempt on a fresh port, in case the port was taken meanwhile.
    }
    return nullptr;
}

namespace {

std::vector<std::string> microsocksArguments(std::uint16_t port,
                                             const std::optional<UserPass>& credentials) {
    std::vector<std::string> arguments{"/usr/bin/microsocks", "-i", "127.0.0.1", "-p",
                                       std::to_string(port)};
    if (credentials) {
        arguments.insert(arguments.end(), {"-u", credentials->user, "-P", credentials->password});
    }
    return arguments;
}

std::vector<std::string> danteArguments(const std::string& directory, std::uint16_t port) {
    // Loopback only, both ways; UDP replies come back from the relayed peer.
    writeFile(directory + "/danted.conf", "logoutput: stderr\n"
                                          "internal: 127.0.0.1 port = " +
                                              std::to_string(port) +
                                              "\n"
                                              "external: 127.0.0.1\n"
                                              "socksmethod: none\n"
                                              "clientmethod: none\n"
                                              "user.privileged: root\n"
                                              "user.unprivileged: nobody\n"
                                              "client pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n"
                                              "socks pass { from: 127.0.0.0/8 to: 127.0.0.0/8 "
                                              "command: connect udpassociate }\n"
                                              "socks pass { from: 127.0.0.0/8 to: 127.0.0.0/8 "
                                              "command: udpreply }\n");
    return {"/usr/sbin/danted",
            "-f",
            directory + "/danted.conf",
            "-p",
            directory + "/danted.pid",
            "-N",
            "1"};
}

std::vector<std::string> tinyproxyArguments(const std::string& directory, std::uint16_t port,
                                            const std::optional<UserPass>& credentials) {
    // No ConnectPort line: CONNECT is allowed to every port.
    std::string config = "Port " + std::to_string(port) +
                         "\n"
                         "Listen 127.0.0.1\n"
                         "Timeout 60\n"
                         "Allow 127.0.0.1\n"
                         "LogLevel Info\n"
                         "MaxClients 64\n";
    if (::geteuid() == 0) {
        config += "User nobody\nGroup nogroup\n";
    }
    if (credentials) {
        config += "BasicAuth " + credentials->user + " " + credentials->password + "\n";
    }
    writeFile(directory + "/tinyproxy.conf", config);
    return {"/usr/bin/tinyproxy", "-d", "-c", directory + "/tinyproxy.conf"};
}

std::string run(const std::string& command) {
    std::string output;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[256];
        while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) {
            output += buffer;
        }
        ::pclose(pipe);
    }
    return output;
}

std::vector<std::string> squidArguments(const std::string& directory, std::uint16_t port,
                                        const std::optional<UserPass>& credentials) {
    // Only the forward path: no cache, no DNS (targets are addresses), no
    // ICMP pinger, and none of the stock port rules that would refuse
    // CONNECT to the echo server's port.
    std::ostringstream text;
    text << "http_port 127.0.0.1:" << port << "\n"
         << "pid_filename " << directory << "/squid.pid\n"
         << "access_log stdio:" << directory << "/access.log\n"
         << "cache_log " << directory << "/cache.log\n"
         << "cache_store_log none\n"
         << "coredump_dir " << directory << "\n"
         << "cache deny all\n"
         << "shutdown_lifetime 0 seconds\n"
         << "dns_nameservers 127.0.0.1\n"
         << "dns_defnames off\n"
         << "check_hostnames off\n"
         << "hosts_file none\n"
         << "pinger_enable off\n";
    std::string config = text.str();
    if (::geteuid() == 0) {
        // squid will not serve as root; the account it drops to writes the
        // logs here.
        config += "cache_effective_user proxy\n";
        if (auto* account = ::getpwnam("proxy")) {
            [[maybe_unused]] int ignored =
                ::chown(directory.c_str(), account->pw_uid, account->pw_gid);
        }
    }
    if (credentials) {
        std::string quoted;
        for (char c : credentials->password) {
            quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        }
        // basic_ncsa_auth reads APR1 hashes.
        auto hash = run("openssl passwd -apr1 '" + quoted + "'");
        while (!hash.empty() && (hash.back() == '\n' || hash.back() == '\r')) {
            hash.pop_back();
        }
        writeFile(directory + "/passwd", credentials->user + ":" + hash + "\n");
        config += "auth_param basic program /usr/lib/squid/basic_ncsa_auth " + directory +
                  "/passwd\n"
                  "auth_param basic children 1\n"
                  "acl authed proxy_auth REQUIRED\n"
                  "http_access allow localhost authed\n";
    } else {
        config += "http_access allow localhost\n";
    }
    config += "http_access deny all\n";
    writeFile(directory + "/squid.conf", config);
    // -d 1 copies cache.log to stderr, so a failed start explains itself.
    return {"/usr/sbin/squid", "-N", "-d", "1", "-f", directory + "/squid.conf"};
}

} // namespace

std::unique_ptr<PeerProcess> startMicrosocks(std::string& whyNot,
                                             const std::optional<UserPass>& credentials) {
    auto arguments = [credentials](const std::string&, std::uint16_t port) {
        return microsocksArguments(port, credentials);
    };
    return PeerProcess::start({"/usr/bin/microsocks", "microsocks", arguments}, whyNot);
}

std::unique_ptr<PeerProcess> startDnsmasq(std::string& whyNot,
                                          const std::vector<std::string>& records) {
    auto arguments = [records](const std::string&, std::uint16_t port) {
        std::vector<std::string> words{"/usr/sbin/dnsmasq",
                                       "--keep-in-foreground",
                                       "--conf-file=/dev/null",
                                       "--no-resolv",
                                       "--no-hosts",
                                       "--bind-interfaces",
                                       "--listen-address=127.0.0.1",
                                       "--pid-file=",
                                       "--port=" + std::to_string(port)};
        if (::geteuid() == 0) {
            words.push_back("--user=root"); // no user switch to fail on
        }
        for (const auto& record : records) {
            const auto equals = record.find('=');
            words.push_back("--address=/" + record.substr(0, equals) + "/" +
                            record.substr(equals + 1));
        }
        return words;
    };
    return PeerProcess::start({"/usr/sbin/dnsmasq", "dnsmasq", arguments}, whyNot);
}

std::unique_ptr<PeerProcess> startDante(std::string& whyNot) {
    if (::geteuid() != 0) {
        whyNot = "danted needs root to switch users";
        return nullptr;
    }
    return PeerProcess::start({"/usr/sbin/danted", "danted", danteArguments}, whyNot);
}

std::unique_ptr<PeerProcess> startTinyproxy(std::string& whyNot,
                                            const std::optional<UserPass>& credentials) {
    auto arguments = [credentials](const std::string& directory, std::uint16_t port) {
        return tinyproxyArguments(directory, port, credentials);
    };
    return PeerProcess::start({"/usr/bin/tinyproxy", "tinyproxy", arguments}, whyNot);
}

std::unique_ptr<PeerProcess> startSquid(std::string& whyNot,
                                        const std::optional<UserPass>& credentials) {
    auto arguments = [credentials](const std::string& directory, std::uint16_t port) {
        return squidArguments(directory, port, credentials);
    };
    return PeerProcess::start({"/usr/sbin/squid", "squid", arguments}, whyNot);
}

} // namespace veltrane::test
