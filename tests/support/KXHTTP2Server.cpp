#include "KXHTTP2Server.h"

#include "KXSealedFiles.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace {

constexpr int kStartAttempts = 5;
constexpr auto kStartPatience = std::chrono::seconds(20);

std::filesystem::path findServerProgram() {
    // The package installs it under sbin, which a non-root PATH often lacks.
    const char* path = std::getenv("PATH");
    std::istringstream folders(std::string(path != nullptr ? path : "") + ":/usr/sbin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::filesystem::path candidate = std::filesystem::path(folder) / "nghttpd";
        if (!folder.empty() && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    throw std::runtime_error(
        "nghttpd not found: the HTTP/2 tests need it; "
        "install the Debian package nghttp2-server "
        "(scripts/install-deps.sh does)");
}

/// A port nothing listens on right now (the kernel's choice for an ephemeral bind).
int freeLoopbackPort() {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    const bool bound = bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                       getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    const int error = errno;
    close(socket);
    if (!bound) {
        throw std::system_error(error, std::generic_category(), "bind to a free loopback port");
    }
    return ntohs(address.sin_port);
}

}  // namespace

KXHTTP2Server::KXHTTP2Server()
    : program_(findServerProgram()), scratch_(kxtest::scratchDirectory("http2")) {
    documentRoot_ = scratch_ / "htdocs";
    logFile_ = scratch_ / "nghttpd.log";
    try {
        std::filesystem::create_directories(documentRoot_);
        certificate_ = KXSelfSignedCertificate::create(scratch_, "server");
        for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
            if (tryToStart(freeLoopbackPort())) {
                return;
            }
        }
        throw std::runtime_error("nghttpd found no free port in " + std::to_string(kStartAttempts) +
                                 " attempts");
    } catch (...) {
        stop();
        throw;
    }
}

KXHTTP2Server::~KXHTTP2Server() {
    stop();
}

void KXHTTP2Server::stop() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
    std::error_code ignored;
    std::filesystem::remove_all(scratch_, ignored);
}

bool KXHTTP2Server::tryToStart(int port) {
    std::vector<std::string> storage = {program_.string(),
                                        "--verbose",
                                        "--address=127.0.0.1",
                                        "--htdocs=" + documentRoot_.string(),
                                        std::to_string(port),
                                        certificate_.privateKeyFile.string(),
                                        certificate_.certificateFile.string()};
    std::vector<char*> argv;
    for (auto& argument : storage) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    const int output = open(logFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (output < 0) {
        throw std::system_error(errno, std::generic_category(), "opening nghttpd's log");
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        // Only async-signal-safe calls until exec. The server goes when this thread goes, so a test
        // process that crashes or is killed leaves no server behind.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) {
            _exit(127);
        }
        dup2(output, 1);
        dup2(output, 2);
        // Not the test's own sockets: a listener kept open here would outlive its service.
        close_range(3, ~0U, 0);
        execv(program_.c_str(), argv.data());
        _exit(127);
    }
    const int error = errno;
    close(output);
    if (pid < 0) {
        throw std::system_error(error, std::generic_category(), "starting " + program_.string());
    }
    pid_ = pid;

    // nghttpd logs "IPv4: listen 127.0.0.1:<port>" once it listens; a port taken in the meantime by
    // someone else makes it exit, and the caller tries another.
    const std::string listening = ": listen 127.0.0.1:" + std::to_string(port);
    const auto deadline = std::chrono::steady_clock::now() + kStartPatience;
    while (std::chrono::steady_clock::now() < deadline) {
        const std::string output = log();
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            if (output.find("Address already in use") != std::string::npos) {
                return false;
            }
            const std::string how = WIFEXITED(status)
                                        ? "exit status " + std::to_string(WEXITSTATUS(status))
                                        : "signal " + std::to_string(WTERMSIG(status));
            throw std::runtime_error("nghttpd exited at start-up (" + how + "): " + output);
        }
        if (output.find(listening) != std::string::npos) {
            port_ = port;
            return true;
        }
        poll(nullptr, 0, 10);
    }
    throw std::runtime_error("nghttpd did not start on port " + std::to_string(port) + ": " +
                             log());
}

void KXHTTP2Server::addDocument(const std::string& path, const std::string& content) {
    const std::filesystem::path file = documentRoot_ / std::filesystem::path(path).relative_path();
    std::filesystem::create_directories(file.parent_path());
    kxtest::writeText(file, content);
}

std::string KXHTTP2Server::log() const {
    const std::vector<std::uint8_t> bytes = kxtest::readBytes(logFile_);
    return {bytes.begin(), bytes.end()};
}

std::vector<std::size_t> KXHTTP2Server::requestStreamsPerConnection() const {
    // nghttpd -v logs each frame as
    //   [id=2] [  0.817] recv HEADERS frame <length=39, flags=0x05, stream_id=1>
    // where id numbers the connection.
    static const std::regex requestHeaders(
        R"(^\[id=(\d+)\] \[ *[0-9.]+\] recv HEADERS frame <.*stream_id=(\d+)>)");
    std::map<unsigned long, std::set<unsigned long>> streams;
    std::istringstream lines(log());
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_search(line, match, requestHeaders)) {
            streams[std::stoul(match[1])].insert(std::stoul(match[2]));
        }
    }
    std::vector<std::size_t> counts;
    for (const auto& [connection, ids] : streams) {
        counts.push_back(ids.size());
    }
    return counts;
}
