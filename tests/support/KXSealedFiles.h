#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// Helpers that make sealed files with the `openssl` command-line tool, so tests check the
/// library against an independent implementation of the salted format.
namespace kxtest {

/// Runs a shell command; returns its exit status.
int run(const std::string& command);

std::vector<std::uint8_t> readBytes(const std::filesystem::path& path);
void writeBytes(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes);
void writeText(const std::filesystem::path& path, const std::string& text);

/// A directory under the test's temporary root, private to the running test case.
std::filesystem::path scratchDirectory(const std::string& name);

/// Seals `plain` with `openssl enc -aes-256-cbc -md md5 -salt -pass pass:<password>` into `out`.
void sealWithOpenSSL(const std::filesystem::path& plain, const std::filesystem::path& out,
                     const std::string& password);

/// An XML property list whose dictionary holds `entries` (already-formatted XML key/value pairs).
std::string xmlPropertyList(const std::string& entries);

/// Seals, with `key`, a configuration holding the application id "app-1" and the staging
/// ("stage-id", "stage-secret") and production ("prod-id", "prod-secret") client credentials,
/// plus `moreEntries`; the plain property list is left next to `sealed` as config.plist.
void sealCredentialConfiguration(const std::filesystem::path& sealed, const std::string& key,
                                 const std::string& moreEntries = {});

}  // namespace kxtest
