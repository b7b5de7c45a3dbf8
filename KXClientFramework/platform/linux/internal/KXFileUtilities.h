#pragma once

// File helpers of the Linux platform: XDG directories, atomic replacement of small files and
// safe loading of property-list files. Exported so that the test suite can reach them.

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

/// The user's home directory: $HOME when it is an absolute path, else the password database.
KX_EXPORT std::filesystem::path kxHomeDirectory();

/// An XDG base directory: $`variable` when it is set to an absolute path (relative values are
/// ignored, as the XDG rules require), else ~/`homeRelative`.
KX_EXPORT std::filesystem::path kxXdgBaseDirectory(const char* variable, const char* homeRelative);

/// Creates `directory` and any missing parents, each new one with exactly `mode` whatever the
/// umask. Existing directories are left as they are. False (with `error` set) on failure.
KX_EXPORT bool kxCreateDirectories(const std::filesystem::path& directory, mode_t mode,
                                   std::string* error = nullptr);

/// Replaces `path` with `contents` so that a crash at any moment leaves either the old file or
/// the new one, never a mixture: the bytes go to a temporary file in the same directory
/// (created with exactly `mode`), which is flushed to disk, renamed over `path`, and the
/// directory is flushed too. The directory must exist. False (with `error` set) on failure;
/// the old file is then untouched.
KX_EXPORT bool kxWriteFileAtomically(const std::filesystem::path& path, std::string_view contents,
                                     mode_t mode, std::string* error = nullptr);

/// Removes temporary files that an earlier kxWriteFileAtomically() of `path` left behind when
/// its process died mid-write (only those whose process is gone).
KX_EXPORT void kxRemoveStaleTemporaryFiles(const std::filesystem::path& path);

/// Renames a damaged `path` to "<path>.damaged-<UTC timestamp>" (with a counter when that
/// exists) and returns the new path, or nothing when the rename failed.
KX_EXPORT std::optional<std::filesystem::path> kxMoveAside(const std::filesystem::path& path);

/// The outcome of loading a property-list file whose root must be a dictionary.
struct KXPropertyListFile {
    /// The dictionary read, or an empty object when the file was missing or damaged.
    KXJSON contents = KXJSON::object();
    /// False when the file was damaged and could not be moved aside: it must not be replaced.
    bool writable = true;
};

/// Loads the dictionary stored in `path`. A missing file gives an empty dictionary. A file that
/// cannot be read, is not a property list, or whose root is not a dictionary is moved aside
/// with kxMoveAside() and reported through KXLog::systemLog() with `what` naming the store; the
/// store then starts empty. Files larger than `maximumSize` count as damaged.
KX_EXPORT KXPropertyListFile kxLoadPropertyListFile(const std::filesystem::path& path,
                                                    std::string_view what,
                                                    std::size_t maximumSize = 256u << 20);
