// Writes the seed corpus of the sealed-data fuzz targets: valid sealed data of several sizes
// in each format, made by the library with the targets' fixed keys and password, behind a byte
// that picks the streaming piece size.
//
// Usage: kx_fuzz_seeds DIRECTORY   (creates DIRECTORY/<target name>/seed-N)
#include "TZFuzzCommon.h"

#include <KXClientFramework/TZEncryptor.h>
#include <KXClientFramework/TZOpenSSLEncryptor.h>

#include <filesystem>
#include <fstream>
#include <string>

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
    return 0;
}
