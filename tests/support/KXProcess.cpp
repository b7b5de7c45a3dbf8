#include "KXProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace kxtest {

ProcessResult runProcess(const std::filesystem::path& program,
                         const std::vector<std::string>& arguments, const std::string& input) {
    std::array<int, 2> in{}, out{}, err{};
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0 ||
        pipe2(err.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);

    std::vector<std::string> storage{program.string()};
    storage.insert(storage.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : storage) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (spawned != 0) {
        close(in[1]);
        close(out[0]);
        close(err[0]);
        throw std::runtime_error("cannot start " + program.string());
    }

    // Feed standard input and drain both outputs together so no pipe fills up and blocks.
    std::signal(SIGPIPE, SIG_IGN);
    ProcessResult result;
    std::size_t written = 0;
    int inFd = in[1];
    if (input.empty()) {
        close(inFd);
        inFd = -1;
    } else {
        // Non-blocking, so that a write larger than the pipe's room returns what fitted instead
        // of waiting for a child that is itself waiting for its output to be read.
        fcntl(inFd, F_SETFL, fcntl(inFd, F_GETFL) | O_NONBLOCK);
    }
    bool outOpen = true, errOpen = true;
    while (outOpen || errOpen || inFd >= 0) {
        pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {inFd, POLLOUT, 0}};
        fds[0].fd = outOpen ? out[0] : -1;
        fds[1].fd = errOpen ? err[0] : -1;
        if (poll(fds, 3, -1) < 0 && errno != EINTR) {
            break;
        }
        char buffer[65536];
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) {
                const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
                if (n > 0) {
                    (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
                } else {
                    (i == 0 ? outOpen : errOpen) = false;
                }
            }
        }
        if (inFd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
            const ssize_t n = write(inFd, input.data() + written, input.size() - written);
            if (n > 0) {
                written += static_cast<std::size_t>(n);
            }
            const bool retry = n < 0 && (errno == EAGAIN || errno == EINTR);
            if ((n <= 0 && !retry) || written == input.size()) {
                close(inFd);
                inFd = -1;
            }
        }
    }
    close(out[0]);
    close(err[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::vector<KXJSON> jsonLines(const std::string& out) {
    std::vector<KXJSON> lines;
    std::istringstream stream(out);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(KXJSON::parse(line, nullptr, false));
    }
    return lines;
}

std::map<std::string, std::string> formFields(const std::string& body) {
    std::map<std::string, std::string> fields;
    std::istringstream stream(body);
    for (std::string piece; std::getline(stream, piece, '&');) {
        const auto equals = piece.find('=');
        fields[piece.substr(0, equals)] =
            equals == std::string::npos ? "" : piece.substr(equals + 1);
    }
    return fields;
}

std::filesystem::path builtProgram(const std::string& relativePath) {
    return std::filesystem::path(KX_PROJECT_BINARY_DIR) / relativePath;
}

}  // namespace kxtest
