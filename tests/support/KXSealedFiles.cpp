#include "KXSealedFiles.h"

#include "KXTestDirectories.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kxtest {

int run(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::uint8_t> readBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeBytes(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes) {
    writeText(path, std::string(bytes.begin(), bytes.end()));
}

void writeText(const std::filesystem::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::filesystem::path scratchDirectory(const std::string& name) {
    const auto& root = KXTestDirectories::current();
    // One folder per test case, so cases that share a process never see each other's files.
    auto directory =
        (root.empty() ? std::filesystem::temp_directory_path() : root) / "scratch" / name;
    if (const auto* test = testing::UnitTest::GetInstance()->current_test_info()) {
        directory /= std::string(test->test_suite_name()) + "." + test->name();
    }
    std::filesystem::create_directories(directory);
    return directory;
}

void sealWithOpenSSL(const std::filesystem::path& plain, const std::filesystem::path& out,
                     const std::string& password) {
    const std::string command = "openssl enc -aes-256-cbc -md md5 -salt -pass 'pass:" + password +
                                "' -in '" + plain.string() + "' -out '" + out.string() + "'";
    if (run(command) != 0) {
        throw std::runtime_error("openssl failed: " + command);
    }
}

std::string xmlPropertyList(const std::string& entries) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n" +
           entries + "</dict>\n</plist>\n";
}

void sealCredentialConfiguration(const std::filesystem::path& sealed, const std::string& key,
                                 const std::string& moreEntries) {
    const std::string entries =
        "<key>appId</key><string>app-1</string>"
        "<key>stageClientId</key><string>stage-id</string>"
        "<key>stageClientSecret</key><string>stage-secret</string>"
        "<key>prodClientId</key><string>prod-id</string>"
        "<key>prodClientSecret</key><string>prod-secret</string>" +
        moreEntries;
    const std::filesystem::path plain = sealed.parent_path() / "config.plist";
    writeText(plain, xmlPropertyList(entries));
    sealWithOpenSSL(plain, sealed, key);
}

}  // namespace kxtest
