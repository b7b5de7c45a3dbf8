#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXLogSink.h>

#include <filesystem>
#include <functional>
#include <string_view>

/// Appends log lines to "ZandrelSDK.log" in a directory.
///
/// Instances are made for one write and dropped; each one announces itself with the line
/// "DISKLogger Created" on the log sink. The file is only ever appended to: it is never
/// truncated, rotated or deleted by the library.
class KX_EXPORT KXDiskLogger {
public:
    explicit KXDiskLogger(std::filesystem::path directory);

    /// Appends `line` and a line feed, creating the file (mode 0600) and its missing folders
    /// (0700) when needed: the log can hold identifiers and tokens. An existing log readable by
    /// others is made owner-only; a symbolic link or anything but a regular file in its place
    /// is not written. A failure to open or write loses the line silently.
    void writeLogToDisk(std::string_view line);

    /// Logs "error: (null)" and leaves the file where it is: the library never deletes it.
    void clearLogFromDisk();

    /// The log file's path in `directory`.
    static std::filesystem::path logFilePath(const std::filesystem::path& directory);

private:
    std::filesystem::path path_;
};

/// The log's copy on disk as a sink (see KXLog::setDiskSink()): each line is appended by a new
/// KXDiskLogger for the sink's directory, so every line is announced as before.
class KX_EXPORT KXDiskLogSink final : public KXLogSink {
public:
    /// Where the file lives, asked at each write (so it follows the installed platform).
    using DirectoryProvider = std::function<std::filesystem::path()>;

    explicit KXDiskLogSink(std::filesystem::path directory);
    explicit KXDiskLogSink(DirectoryProvider directory);

    void write(std::string_view line) override;

private:
    DirectoryProvider directory_;
};
