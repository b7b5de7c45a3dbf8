#pragma once

#include <filesystem>

/// A temporary folder with config/, data/, cache/ and home/ inside, exported as
/// XDG_CONFIG_HOME, XDG_DATA_HOME, XDG_CACHE_HOME and HOME for the life of the object.
class KXTestDirectories {
public:
    KXTestDirectories();
    ~KXTestDirectories();
    KXTestDirectories(const KXTestDirectories&) = delete;
    KXTestDirectories& operator=(const KXTestDirectories&) = delete;

    const std::filesystem::path& root() const { return root_; }

    /// The folder made for the running process (set by the first instance).
    static const std::filesystem::path& current() { return current_; }

private:
    std::filesystem::path root_;
    static inline std::filesystem::path current_;
};
