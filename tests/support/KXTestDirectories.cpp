#include "KXTestDirectories.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

KXTestDirectories::KXTestDirectories() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kx-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary directory");
    }
    root_ = pattern;
    const std::pair<const char*, const char*> variables[] = {
        {"XDG_CONFIG_HOME", "config"},
        {"XDG_DATA_HOME", "data"},
        {"XDG_CACHE_HOME", "cache"},
        {"HOME", "home"},
    };
    for (const auto& [variable, folder] : variables) {
        std::filesystem::create_directories(root_ / folder);
        setenv(variable, (root_ / folder).c_str(), 1);
    }
    if (current_.empty()) {
        current_ = root_;
    }
}

KXTestDirectories::~KXTestDirectories() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
    if (current_ == root_) {
        current_.clear();
    }
}
