#pragma once

// A kxsandbox service running as a child process on a free port, for tests that drive it
// through the library. Its standard output (the request log) goes to a file beside the database.

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

class KXSandboxProcess {
public:
    /// Starts `kxsandbox --db <database> serve --port 0 <arguments>` and waits until it listens.
    KXSandboxProcess(std::filesystem::path database, std::vector<std::string> arguments);
    ~KXSandboxProcess() { terminate(); }
    KXSandboxProcess(const KXSandboxProcess&) = delete;
    KXSandboxProcess& operator=(const KXSandboxProcess&) = delete;

    int port() const { return port_; }
    std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_); }

    /// Stops with SIGTERM and waits; the exit status (-1 when it did not exit normally).
    int terminate() { return stop(SIGTERM); }
    void kill() { stop(SIGKILL); }
    /// Starts again on the same database and arguments (a new port).
    void restart() {
        terminate();
        start();
    }

    /// The lines written to standard output so far, by every start.
    std::vector<std::string> lines() const;

private:
    void start();
    int stop(int signal);

    std::filesystem::path database_;
    std::vector<std::string> arguments_;
    std::filesystem::path log_;
    pid_t pid_ = -1;
    int port_ = 0;
};
