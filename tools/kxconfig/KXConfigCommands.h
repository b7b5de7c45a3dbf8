#pragma once

#include "KXSealing.h"

#include <string>

namespace kxconfig {

struct SealOptions {
    std::string key;
    std::string input;
    std::string output = "KXConfig.enc";
};
struct OpenOptions {
    std::string key;
    std::string input;
    bool xml = false;
};
struct CryptOptions {
    Format format = Format::Salted;
    Keys keys;
    std::string input;   // empty: standard input
    std::string output;  // empty: standard output
};

// Each command returns the process's exit status and throws Failure for status 1.
int seal(const SealOptions& options);
int open(const OpenOptions& options);
int check(const OpenOptions& options);
int encrypt(const CryptOptions& options);
int decrypt(const CryptOptions& options);

}  // namespace kxconfig
