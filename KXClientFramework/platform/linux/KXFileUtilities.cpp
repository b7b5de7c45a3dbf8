#include "platform/linux/internal/KXFileUtilities.h"

#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPropertyList.h>

#include <fmt/format.h>

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace fs = std::filesystem;

namespace {

void setError(std::string* error, const std::string& text) {
    if (error != nullptr) {
        *error = text;
    }
}

std::string errnoText(const char* what, const fs::path& path) {
    return fmt::format("{} {}: {}", what, path.string(), std::strerror(errno));
}

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }

private:
    int fd_;
};

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

const char* kTemporaryMarker = ".tmp-";

}  // namespace

fs::path kxHomeDirectory() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/') {
        return home;
    }
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* result = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 &&
        result != nullptr && result->pw_dir != nullptr && result->pw_dir[0] == '/') {
        return result->pw_dir;
    }
    // No home at all (a bare service account): keep the files somewhere private to the user.
    return fs::temp_directory_path() / fmt::format("kx-home-{}", ::getuid());
}

fs::path kxXdgBaseDirectory(const char* variable, const char* homeRelative) {
    const char* value = std::getenv(variable);
    if (value != nullptr && value[0] == '/') {
        return value;
    }
    return kxHomeDirectory() / homeRelative;
}

bool kxCreateDirectories(const fs::path& directory, mode_t mode, std::string* error) {
    if (directory.empty()) {
        setError(error, "empty directory path");
        return false;
    }
    std::vector<fs::path> missing;
    for (fs::path p = directory; !p.empty(); p = p.parent_path()) {
        struct stat info {};
        if (::stat(p.c_str(), &info) == 0) {
            if (!S_ISDIR(info.st_mode)) {
                setError(error, fmt::format("{} is not a directory", p.string()));
                return false;
            }
            break;
        }
        missing.push_back(p);
        if (p == p.parent_path()) {
            break;
        }
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        if (::mkdir(it->c_str(), mode) != 0) {
            if (errno == EEXIST) {
                continue;  // made by someone else meanwhile
            }
            setError(error, errnoText("cannot create", *it));
            return false;
        }
        // mkdir() applies the umask; set the exact mode on what we created.
        if (::chmod(it->c_str(), mode) != 0) {
            setError(error, errnoText("cannot set the mode of", *it));
            return false;
        }
    }
    return true;
}

bool kxWriteFileAtomically(const fs::path& path, std::string_view contents, mode_t mode,
                           std::string* error) {
    static std::atomic<unsigned> counter{0};
    const fs::path directory = path.has_parent_path() ? path.parent_path() : fs::path(".");
    const fs::path temporary =
        path.string() + fmt::format("{}{}-{}", kTemporaryMarker, ::getpid(), counter++);

    // The temporary file is created with no more than `mode` (O_EXCL: never someone else's
    // file) and then given exactly `mode`, so a secret is never readable by others, not even
    // for a moment.
    FileDescriptor fd(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!fd.valid()) {
        setError(error, errnoText("cannot create", temporary));
        return false;
    }
    auto fail = [&](const char* what) {
        setError(error, errnoText(what, temporary));
        fd.reset();
        ::unlink(temporary.c_str());
        return false;
    };
    if (::fchmod(fd.get(), mode) != 0) {
        return fail("cannot set the mode of");
    }
    if (!writeAll(fd.get(), contents)) {
        return fail("cannot write");
    }
    if (::fsync(fd.get()) != 0) {
        return fail("cannot flush");
    }
    if (::close(fd.release()) != 0) {
        return fail("cannot close");
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        return fail("cannot rename");
    }
    // Make the rename itself durable.
    FileDescriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.valid()) {
        ::fsync(dir.get());
    }
    return true;
}

void kxRemoveStaleTemporaryFiles(const fs::path& path) {
    const fs::path directory = path.has_parent_path() ? path.parent_path() : fs::path(".");
    const std::string prefix = path.filename().string() + kTemporaryMarker;
    std::error_code ec;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (name.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        // "<name>.tmp-<pid>-<counter>"
        const std::string rest = name.substr(prefix.size());
        char* stop = nullptr;
        const long pid = std::strtol(rest.c_str(), &stop, 10);
        if (stop == rest.c_str() || *stop != '-' || pid <= 0) {
            continue;
        }
        if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
            std::error_code ignored;
            fs::remove(it->path(), ignored);
        }
    }
}

std::optional<fs::path> kxMoveAside(const fs::path& path) {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &parts);
    const std::string base = path.string() + ".damaged-" + stamp;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const fs::path target =
            attempt == 0 ? fs::path(base) : fs::path(fmt::format("{}-{}", base, attempt));
        // Never replace an earlier damaged copy: rename without replacing where the file
        // system supports it, else link() and unlink().
        if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) {
            return target;
        }
        if (errno == EINVAL || errno == ENOSYS) {
            if (::link(path.c_str(), target.c_str()) == 0) {
                ::unlink(path.c_str());
                return target;
            }
        }
        if (errno != EEXIST) {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

KXPropertyListFile kxLoadPropertyListFile(const fs::path& path, std::string_view what,
                                          std::size_t maximumSize) {
    KXPropertyListFile result;
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string problem;
    if (!fd.valid()) {
        if (errno == ENOENT) {
            return result;
        }
        problem = std::strerror(errno);
    } else {
        struct stat info {};
        if (::fstat(fd.get(), &info) != 0) {
            problem = std::strerror(errno);
        } else if (!S_ISREG(info.st_mode)) {
            problem = "not a regular file";
        } else if (static_cast<std::uint64_t>(info.st_size) > maximumSize) {
            problem = fmt::format("{} bytes is more than a store can hold", info.st_size);
        } else {
            std::string bytes;
            bytes.resize(static_cast<std::size_t>(info.st_size));
            std::size_t got = 0;
            while (got < bytes.size()) {
                const ssize_t n = ::read(fd.get(), bytes.data() + got, bytes.size() - got);
                if (n < 0 && errno == EINTR) {
                    continue;
                }
                if (n <= 0) {
                    break;
                }
                got += static_cast<std::size_t>(n);
            }
            bytes.resize(got);
            if (bytes.empty()) {
                problem = "the file is empty";
            } else if (auto parsed = KXPropertyList::parse(bytes); !parsed) {
                problem = "not a property list";
            } else if (!parsed->is_object()) {
                problem = "the property list is not a dictionary";
            } else {
                result.contents = std::move(*parsed);
                return result;
            }
        }
    }
    fd.reset();
    if (auto moved = kxMoveAside(path)) {
        KXLog::systemLog(fmt::format("{} {} is damaged ({}); moved it to {} and starting empty",
                                     what, path.string(), problem, moved->string()));
    } else {
        result.writable = false;
        KXLog::systemLog(fmt::format(
            "{} {} is damaged ({}) and cannot be moved aside ({}); starting empty and leaving "
            "the file as it is",
            what, path.string(), problem, std::strerror(errno)));
    }
    return result;
}
