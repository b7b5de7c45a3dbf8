#include "KXSandboxProcess.h"

#include "KXProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <thread>

extern char** environ;

KXSandboxProcess::KXSandboxProcess(std::filesystem::path database,
                                   std::vector<std::string> arguments)
    : database_(std::move(database)),
      arguments_(std::move(arguments)),
      log_(database_.string() + ".log") {
    start();
}

void KXSandboxProcess::start() {
    const std::filesystem::path program = kxtest::builtProgram("tools/kxsandbox/kxsandbox");
    std::vector<std::string> storage = {program.string(), "--db",   database_.string(),
                                        "serve",          "--port", "0"};
    storage.insert(storage.end(), arguments_.begin(), arguments_.end());
    std::vector<char*> argv;
    for (std::string& argument : storage) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const std::size_t earlierLines = lines().size();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log_.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0600);
    const int spawned =
        posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        pid_ = -1;
        throw std::runtime_error("cannot start " + program.string());
    }
    // Wait for this run's announcement of its port, or for the process to end.
    static const std::regex kListening(R"(listening on http://127\.0\.0\.1:(\d+))");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        if (waitpid(pid_, nullptr, WNOHANG) != 0) {
            pid_ = -1;  // it ended
            break;
        }
        const std::vector<std::string> written = lines();
        for (std::size_t i = earlierLines; i < written.size(); ++i) {
            std::smatch match;
            if (std::regex_search(written[i], match, kListening)) {
                port_ = std::stoi(match[1]);
                return;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill();
    throw std::runtime_error("kxsandbox did not start listening");
}

int KXSandboxProcess::stop(int signal) {
    if (pid_ <= 0) {
        return -1;
    }
    ::kill(pid_, signal);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> KXSandboxProcess::lines() const {
    std::ifstream log(log_, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    std::vector<std::string> lines;
    // A last line still being written is left out until its newline arrives.
    for (std::size_t start = 0, end = 0; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1) {
        lines.push_back(text.substr(start, end - start));
    }
    return lines;
}
