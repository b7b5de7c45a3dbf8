#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kxconfig {

/// Writes `bytes` to `path` ("" or "-": standard output) without ever leaving a torn or
/// half-written file, and without following a link it did not ask for:
///
/// - a regular file (also one reached through symbolic links) is replaced as a whole: the bytes
///   go into a new file in the same folder, opened exclusively (unnamed where the file system
///   allows, so that even a killed run leaves nothing behind), which is then renamed over it.
///   The symbolic links stay links, and the file keeps its mode;
/// - a new file gets `newFileMode` (the umask is not applied to it);
/// - anything else that exists (a pipe, a terminal, /dev/stdout, a device) is written in place;
/// - a folder or a link that points nowhere is refused.
///
/// Throws Failure; on every failure the temporary file is gone.
void writeOutputFile(const std::string& path, const std::vector<std::uint8_t>& bytes,
                     mode_t newFileMode);

/// 0666 without the process's umask: the mode of an ordinary new file.
mode_t defaultFileMode();

}  // namespace kxconfig
