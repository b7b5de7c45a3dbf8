#include <KXClientFramework/KXDiskLogger.h>
#include <KXClientFramework/KXLog.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char* kLogFileName = "ZandrelSDK.log";

/// Creates the missing folders of `directory`, each readable by its owner only.
void createPrivateDirectories(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> missing;
    for (std::filesystem::path p = directory; !p.empty() && ::access(p.c_str(), F_OK) != 0;
         p = p.parent_path()) {
        missing.push_back(p);
        if (p == p.parent_path()) {
            break;
        }
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        // mkdir() applies the umask, which can only take permissions away from 0700.
        if (::mkdir(it->c_str(), 0700) != 0 && errno != EEXIST) {
            return;
        }
    }
}

}  // namespace

KXDiskLogger::KXDiskLogger(std::filesystem::path directory)
    : path_(logFilePath(std::move(directory))) {
    KXLog::systemLog("DISKLogger Created");
}

std::filesystem::path KXDiskLogger::logFilePath(const std::filesystem::path& directory) {
    return directory / kLogFileName;
}

void KXDiskLogger::writeLogToDisk(std::string_view line) {
    const std::filesystem::path& path = path_;
    createPrivateDirectories(path.parent_path());

    // One append-mode write per line keeps concurrent writers from splitting each other's lines.
    // The log can hold identifiers and tokens: owner-only, also for a file an older version
    // created with wider permissions. A symbolic link in its place is not followed.
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        ((info.st_mode & 0077) != 0 && ::fchmod(fd, 0600) != 0)) {
        ::close(fd);
        return;
    }
    std::string buffer;
    buffer.reserve(line.size() + 1);
    buffer.append(line).push_back('\n');
    const char* data = buffer.data();
    std::size_t remaining = buffer.size();
    while (remaining > 0) {
        const ssize_t written = ::write(fd, data, remaining);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            break;
        }
        data += written;
        remaining -= static_cast<std::size_t>(written);
    }
    ::close(fd);
}

void KXDiskLogger::clearLogFromDisk() {
    // The log is kept for support: asking to clear it only reports that nothing was removed.
    KXLog::systemLog("error: (null)");
}

KXDiskLogSink::KXDiskLogSink(std::filesystem::path directory)
    : directory_([directory = std::move(directory)] { return directory; }) {}

KXDiskLogSink::KXDiskLogSink(DirectoryProvider directory) : directory_(std::move(directory)) {}

void KXDiskLogSink::write(std::string_view line) {
    KXDiskLogger(directory_ ? directory_() : std::filesystem::path()).writeLogToDisk(line);
}
