#include "KXProcess.h"

#include "KXSealedFiles.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace kxtest {

ProcessResult runProcess(const std::filesystem::path& program,
                         const std::vector<std::string>& arguments, const std::string& input) {
    // Standard input and both outputs are files, so no pipe can fill up and block either side.
    std::string pattern = (std::filesystem::temp_directory_path() / "kx-process-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary directory");
    }
    const std::filesystem::path folder = pattern;
    writeText(folder / "in", input);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, (folder / "in").c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, (folder / "out").c_str(), O_WRONLY | O_CREAT,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, 2, (folder / "err").c_str(), O_WRONLY | O_CREAT,
                                     0600);

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
    ProcessResult result;
    if (spawned == 0) {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        const auto out = readBytes(folder / "out"), err = readBytes(folder / "err");
        result.out.assign(out.begin(), out.end());
        result.err.assign(err.begin(), err.end());
    }
    std::filesystem::remove_all(folder);
    if (spawned != 0) {
        throw std::runtime_error("cannot start " + program.string());
    }
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
