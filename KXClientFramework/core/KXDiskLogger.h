#pragma once

#include <KXClientFramework/KXExport.h>

#include <filesystem>
#include <string_view>

/// Appends log lines to "ZandrelSDK.log" in the platform's caches directory.
///
/// Instances are made for one write and dropped; each one announces itself with the line
/// "DISKLogger Created" on the log sink. The file is only ever appended to: it is never
/// truncated, rotated or deleted by the library.
class KX_EXPORT KXDiskLogger {
public:
    KXDiskLogger();

    /// Appends `line` and a line feed, creating the file (mode 0600) and its missing folders
    /// (0700) when needed: the log can hold identifiers and tokens. An existing log readable by
    /// others is made owner-only; a symbolic link or anything but a regular file in its place
    /// is not written. A failure to open or write loses the line silently.
    void writeLogToDisk(std::string_view line);

    /// Logs "error: (null)" and leaves the file where it is: the library never deletes it.
    void clearLogFromDisk();

    /// The log file's path.
    static std::filesystem::path logFilePath();
};
