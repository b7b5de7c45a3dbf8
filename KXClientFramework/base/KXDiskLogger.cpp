#include <KXClientFramework/KXDiskLogger.h>
#include <KXClientFramework/KXLog.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <system_error>
#include <utility>

namespace {
constexpr const char* kLogFileName = "ZandrelSDK.log";
}

KXDiskLogger::KXDiskLogger(std::filesystem::path directory)
    : path_(logFilePath(std::move(directory))) {
    KXLog::systemLog("DISKLogger Created");
}

std::filesystem::path KXDiskLogger::logFilePath(const std::filesystem::path& directory) {
    return directory / kLogFileName;
}

void KXDiskLogger::writeLogToDisk(std::string_view line) {
    const std::filesystem::path& path = path_;
    std::error_code ignored;
    std::filesystem::create_directories(path.parent_path(), ignored);

    // One append-mode write per line keeps concurrent writers from splitting each other's lines.
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
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
