#pragma once

#include <KXClientFramework/KXAsioMainQueue.h>
#include <KXClientFramework/KXLocationSource.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

namespace kxplatformtest {

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::filesystem::path& path, const std::string& bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline mode_t modeOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

inline std::vector<std::filesystem::path> entriesStartingWith(
    const std::filesystem::path& directory, const std::string& prefix) {
    std::vector<std::filesystem::path> found;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().filename().string().rfind(prefix, 0) == 0) {
            found.push_back(entry.path());
        }
    }
    return found;
}

/// Runs `body` in a forked child, which ends with _exit() whatever happens (status 0 when
/// `body` returned true) and so never returns into the test runner, which would run other
/// tests and clean up the test's directories from the child.
inline pid_t startChild(const std::function<bool()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        bool ok = false;
        try {
            ok = body();
        } catch (...) {
        }
        _exit(ok ? 0 : 1);
    }
    EXPECT_NE(child, -1);
    return child;
}

inline bool childSucceeded(pid_t child) {
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

struct RecordingLocationDelegate final : KXLocationSourceDelegate {
    std::vector<KXLocation> fixes;
    std::vector<KXError> errors;
    bool onMainThread = true;  // every fix arrived on the process's initial thread

    void didUpdateLocations(const std::vector<KXLocation>& locations) override {
        onMainThread = onMainThread && kxIsProcessInitialThread();
        fixes.insert(fixes.end(), locations.begin(), locations.end());
    }
    void didFailWithError(const KXError& error) override { errors.push_back(error); }
};

}  // namespace kxplatformtest
