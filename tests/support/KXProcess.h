#pragma once

#include <KXClientFramework/KXJSON.h>

#include <filesystem>
#include <map>
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

/// Standard output of a tool that prints one JSON document per line; a line that is not JSON
/// becomes a discarded value.
std::vector<KXJSON> jsonLines(const std::string& out);

/// The fields of a form body "a=b&c=d", undecoded, as the token endpoint receives them.
std::map<std::string, std::string> formFields(const std::string& body);

/// A program built by this project, by its path under the build directory.
std::filesystem::path builtProgram(const std::string& relativePath);

}  // namespace kxtest
