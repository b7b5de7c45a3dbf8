#include "KXOutputFile.h"

#include "KXSealing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

namespace kxconfig {
namespace {

std::string reason(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

void writeAll(int fd, const std::vector<std::uint8_t>& bytes, const std::string& path) {
    const std::uint8_t* data = bytes.data();
    std::size_t remaining = bytes.size();
    while (remaining > 0) {
        const ssize_t written = ::write(fd, data, remaining);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            throw Failure(reason("cannot write " + path));
        }
        data += written;
        remaining -= static_cast<std::size_t>(written);
    }
}

/// Closes the descriptor and removes the named temporary file unless released.
class Temporary {
public:
    ~Temporary() {
        if (fd >= 0) {
            ::close(fd);
        }
        if (!name.empty()) {
            ::unlink(name.c_str());
        }
    }
    int fd = -1;
    std::string name;
};

std::string temporaryName(const std::filesystem::path& target) {
    static std::mt19937_64 random{std::random_device{}()};
    std::array<char, 32> suffix{};
    std::snprintf(suffix.data(), suffix.size(), ".%d.%016llx", static_cast<int>(::getpid()),
                  static_cast<unsigned long long>(random()));
    return (target.parent_path() / ("." + target.filename().string() + suffix.data())).string();
}

void replaceRegularFile(const std::filesystem::path& target, const std::vector<std::uint8_t>& bytes,
                        mode_t mode, const std::string& shownPath) {
    const std::filesystem::path folder =
        target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
    Temporary temporary;
    bool unnamed = true;
    temporary.fd = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    if (temporary.fd < 0) {
        // No unnamed files here: a new name, created exclusively (an existing file or link of
        // that name makes it fail instead of being followed).
        unnamed = false;
        for (int attempt = 0; attempt < 16 && temporary.fd < 0; ++attempt) {
            temporary.name = temporaryName(target);
            temporary.fd = ::open(temporary.name.c_str(),
                                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
            if (temporary.fd < 0 && errno != EEXIST) {
                break;
            }
        }
        if (temporary.fd < 0) {
            temporary.name.clear();
            throw Failure(reason("cannot write " + shownPath));
        }
    }
    if (::fchmod(temporary.fd, mode) != 0) {
        throw Failure(reason("cannot set the mode of " + shownPath));
    }
    writeAll(temporary.fd, bytes, shownPath);
    if (::fsync(temporary.fd) != 0) {
        throw Failure(reason("cannot write " + shownPath));
    }
    if (unnamed) {
        // Give the finished file a name only now, just before it replaces the target.
        const std::string descriptor = "/proc/self/fd/" + std::to_string(temporary.fd);
        for (int attempt = 0; attempt < 16; ++attempt) {
            temporary.name = temporaryName(target);
            if (::linkat(AT_FDCWD, descriptor.c_str(), AT_FDCWD, temporary.name.c_str(),
                         AT_SYMLINK_FOLLOW) == 0) {
                break;
            }
            const int failure = errno;
            temporary.name.clear();
            if (failure != EEXIST) {
                errno = failure;
                throw Failure(reason("cannot write " + shownPath));
            }
        }
        if (temporary.name.empty()) {
            throw Failure("cannot write " + shownPath + ": no free temporary name");
        }
    }
    if (::rename(temporary.name.c_str(), target.c_str()) != 0) {
        throw Failure(reason("cannot write " + shownPath));
    }
    temporary.name.clear();  // it is the target now
}

}  // namespace

mode_t defaultFileMode() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

void writeOutputFile(const std::string& path, const std::vector<std::uint8_t>& bytes,
                     mode_t newFileMode) {
    if (path.empty() || path == "-") {
        if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() ||
            std::fflush(stdout) != 0) {
            throw Failure("cannot write standard output");
        }
        return;
    }

    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        if (errno != ENOENT) {
            throw Failure(reason("cannot write " + path));
        }
        struct stat link {};
        if (::lstat(path.c_str(), &link) == 0) {
            throw Failure("cannot write " + path + ": it is a symbolic link that points nowhere");
        }
        replaceRegularFile(path, bytes, newFileMode, path);
        return;
    }
    if (S_ISDIR(info.st_mode)) {
        throw Failure("cannot write " + path + ": it is a folder");
    }
    if (!S_ISREG(info.st_mode)) {
        // A pipe, a terminal or a device: it cannot be replaced, only written to.
        const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd < 0) {
            throw Failure(reason("cannot write " + path));
        }
        Temporary closer;
        closer.fd = fd;
        writeAll(fd, bytes, path);
        return;
    }
    // An existing file, perhaps behind symbolic links: replace the file itself, keep its mode.
    std::array<char, PATH_MAX> resolved{};
    if (::realpath(path.c_str(), resolved.data()) == nullptr) {
        throw Failure(reason("cannot write " + path));
    }
    replaceRegularFile(resolved.data(), bytes, info.st_mode & 07777, path);
}

}  // namespace kxconfig
