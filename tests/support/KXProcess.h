#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace kxtest {

/// What a finished child process left behind.
struct ProcessResult {
    int exitCode = -1;  // -1 when it did not exit normally
    std::string out;
    std::string err;
};

/// Runs `program` with `arguments` (no shell), feeding `input` on standard input, and waits.
ProcessResult runProcess(const std::filesystem::path& program,
                         const std::vector<std::string>& arguments, const std::string& input = "");

/// A program built by this project, by its path under the build directory.
std::filesystem::path builtProgram(const std::string& relativePath);

}  // namespace kxtest
