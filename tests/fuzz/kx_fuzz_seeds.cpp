// Writes the seed corpus of the fuzz targets: valid sealed data of several sizes in each format,
// made by the library with the targets' fixed keys and password, behind a byte that picks the
// streaming piece size; and for every JSON reader (service answers, guest, inbox, list and
// push payload targets) and the configuration loader, the hostile cases: nesting at, just over
// and far over the limit, and a flat array just over the value limit.
//
// Usage: kx_fuzz_seeds DIRECTORY   (creates DIRECTORY/<target name>/seed-N)
#include "TZFuzzCommon.h"

#include <KXClientFramework/TZEncryptor.h>
#include <KXClientFramework/TZOpenSSLEncryptor.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

void writeSeeds(const std::filesystem::path& directory,
                const std::vector<std::vector<std::uint8_t>>& sealed) {
    std::filesystem::create_directories(directory);
    int index = 0;
    for (const auto& data : sealed) {
        for (const std::uint8_t piece : {std::uint8_t{0}, std::uint8_t{6}, std::uint8_t{11}}) {
            std::ofstream out(directory / ("seed-" + std::to_string(index++)), std::ios::binary);
            out.put(static_cast<char>(piece));
            out.write(reinterpret_cast<const char*>(data.data()),
                      static_cast<std::streamsize>(data.size()));
        }
    }
}

std::vector<std::uint8_t> bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

void writeFiles(const std::filesystem::path& directory,
                const std::vector<std::vector<std::uint8_t>>& files) {
    std::filesystem::create_directories(directory);
    int index = 0;
    for (const auto& data : files) {
        std::ofstream out(directory / ("seed-" + std::to_string(index++)), std::ios::binary);
        out.write(reinterpret_cast<const char*>(data.data()),
                  static_cast<std::streamsize>(data.size()));
    }
}

std::string nested(std::size_t depth, const std::string& open, const std::string& close) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) {
        text += open;
    }
    for (std::size_t i = 0; i < depth; ++i) {
        text += close;
    }
    return text;
}

std::string flatArray(std::size_t values) {
    std::string text = "[0";
    for (std::size_t i = 1; i < values; ++i) {
        text += ",0";
    }
    return text + "]";
}

std::vector<std::uint8_t> withSelector(std::uint8_t selector,
                                       const std::vector<std::uint8_t>& body) {
    std::vector<std::uint8_t> input{selector};
    input.insert(input.end(), body.begin(), body.end());
    return input;
}

std::vector<std::uint8_t> plain(std::size_t length) {
    std::vector<std::uint8_t> bytes(length);
    for (std::size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + 3);
    }
    return bytes;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    const std::filesystem::path root = argv[1];
    std::vector<std::vector<std::uint8_t>> salted, keyed, withPassword;
    for (const std::size_t length : {0, 1, 16, 40, 300}) {
        const auto bytes = plain(length);
        salted.push_back(
            *TZOpenSSLEncryptor::encryptData(bytes, kTZCryptorAES256Settings, tzfuzz::kPassword));
        salted.push_back(*TZOpenSSLEncryptor::encryptData(
            bytes, kTZCryptorAES256Settings, tzfuzz::encryptionKey(), tzfuzz::saltedIV()));
        keyed.push_back(*TZEncryptor::encryptData(bytes, kTZCryptorAES256Settings,
                                                  tzfuzz::encryptionKey(), tzfuzz::HMACKey()));
        auto sealed =
            *TZEncryptor::encryptData(bytes, tzfuzz::passwordSettings(), tzfuzz::kPassword);
        withPassword.push_back(sealed);
        sealed[0] = 2;  // the version-2 reading of the same bytes
        withPassword.push_back(sealed);
    }
    writeSeeds(root / "fuzz_salted_decryptor", salted);
    writeSeeds(root / "fuzz_container_key", keyed);
    writeSeeds(root / "fuzz_container_password", withPassword);

    // Every target that reads the service's JSON starts from nesting at, just over and far over
    // the limit and a long flat array; its realistic replies are the hand-written seeds in
    // tests/fuzz/seeds/. The array stays far below the value limit: libFuzzer cuts inputs to
    // 1 MiB, and a megabyte of array costs seconds per run under the sanitizers, which starves
    // the short CI runs (the limit itself is a unit test of the JSON reader).
    const std::vector<std::vector<std::uint8_t>> hostile = {
        bytes(nested(512, "[", "]")), bytes(nested(513, "[", "]")),
        bytes(nested(100000, "{\"a\":", "}")), bytes(flatArray(20'000))};
    for (const char* target : {"fuzz_guest_parser", "fuzz_inbox_page", "fuzz_inbox_message",
                               "fuzz_inbox_domain", "fuzz_list", "fuzz_push_payload"}) {
        writeFiles(root / target, hostile);
    }
    std::vector<std::vector<std::uint8_t>> answers = {
        bytes(R"({"access_token":"t","expires_in":3600})"),
        bytes(R"({"access_token":"t","expires_in":0})"), bytes(R"({"error":[1,2.5,null]})")};
    answers.insert(answers.end(), hostile.begin(), hostile.end());
    writeFiles(root / "fuzz_json_answer", answers);

    const auto plist = [](const std::string& body) {
        return bytes("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body +
                     "</plist>");
    };
    const auto deepPlist = plist(nested(513, "<array>", "</array>"));
    writeFiles(
        root / "fuzz_config_loader",
        {withSelector(0, plist("<dict><key>appId</key><string>a</string></dict>")),
         withSelector(0, plist(nested(512, "<array>", "</array>"))), withSelector(0, deepPlist),
         withSelector(1, *TZOpenSSLEncryptor::encryptData(deepPlist, kTZCryptorAES256Settings,
                                                          "fuzz-key"))});
    return 0;
}
