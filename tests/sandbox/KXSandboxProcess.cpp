#include "KXSandboxProcess.h"

#include "KXProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <regex>
#include <stdexcept>

extern char** environ;

KXSandboxProcess::KXSandboxProcess(std::filesystem::path database,
                                   std::vector<std::string> arguments)
    : database_(std::move(database)), arguments_(std::move(arguments)) {
    start();
}

KXSandboxProcess::~KXSandboxProcess() {
    if (pid_ > 0) {
        terminate();
    }
}

void KXSandboxProcess::start() {
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const std::filesystem::path program = kxtest::builtProgram("tools/kxsandbox/kxsandbox");
    std::vector<std::string> storage = {program.string(), "--db",   database_.string(),
                                        "serve",          "--port", "0"};
    storage.insert(storage.end(), arguments_.begin(), arguments_.end());
    std::vector<char*> argv;
    for (std::string& argument : storage) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
    const int spawned =
        posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    if (spawned != 0) {
        close(pipeEnds[0]);
        pid_ = -1;
        throw std::runtime_error("cannot start " + program.string());
    }
    output_ = pipeEnds[0];

    std::mutex ready;
    std::condition_variable listening;
    int port = 0;
    bool ended = false;
    reader_ = std::thread([this, &ready, &listening, &port, &ended] {
        static const std::regex kListening(R"(listening on http://127\.0\.0\.1:(\d+))");
        std::string pending;
        char chunk[4096];
        bool announced = false;
        for (;;) {
            const ssize_t got = ::read(output_, chunk, sizeof chunk);
            if (got <= 0) {
                break;
            }
            pending.append(chunk, static_cast<std::size_t>(got));
            std::size_t newline = 0;
            while ((newline = pending.find('\n')) != std::string::npos) {
                const std::string line = pending.substr(0, newline);
                pending.erase(0, newline + 1);
                {
                    std::lock_guard lock(mutex_);
                    lines_.push_back(line);
                }
                std::smatch match;
                if (!announced && std::regex_search(line, match, kListening)) {
                    announced = true;
                    std::lock_guard lock(ready);
                    port = std::stoi(match[1]);
                    listening.notify_all();
                }
            }
        }
        close(output_);
        if (!announced) {
            std::lock_guard lock(ready);
            ended = true;
            listening.notify_all();
        }
    });
    std::unique_lock lock(ready);
    if (!listening.wait_for(lock, std::chrono::seconds(20), [&] { return port != 0 || ended; }) ||
        port == 0) {
        lock.unlock();
        kill();
        throw std::runtime_error("kxsandbox did not start listening");
    }
    port_ = port;
}

void KXSandboxProcess::wait() {
    if (reader_.joinable()) {
        reader_.join();
    }
}

int KXSandboxProcess::terminate() {
    if (pid_ <= 0) {
        return -1;
    }
    ::kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    wait();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void KXSandboxProcess::kill() {
    if (pid_ <= 0) {
        return;
    }
    ::kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    wait();
}

void KXSandboxProcess::restart() {
    if (pid_ > 0) {
        terminate();
    }
    start();
}

std::vector<std::string> KXSandboxProcess::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}
