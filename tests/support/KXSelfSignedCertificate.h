#pragma once

#include "KXSealedFiles.h"

#include <filesystem>
#include <stdexcept>
#include <string>

/// A throw-away TLS certificate for 127.0.0.1, signed with its own key (no separate authority),
/// and that key, as PEM files. A client trusts a server presenting it by using the certificate
/// file as its certificate-authority file.
struct KXSelfSignedCertificate {
    std::filesystem::path certificateFile;
    std::filesystem::path privateKeyFile;

    /// Makes a fresh P-256 key and a certificate for subjectAltName IP:127.0.0.1 (which clients
    /// match, never the common name), valid for a day, with the `openssl` tool, as `<name>.crt`
    /// and `<name>.key` in `folder`. Throws std::runtime_error when the tool fails.
    static KXSelfSignedCertificate create(const std::filesystem::path& folder,
                                          const std::string& name) {
        KXSelfSignedCertificate files{folder / (name + ".crt"), folder / (name + ".key")};
        const std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 "
            "-subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 "
            "-addext basicConstraints=critical,CA:FALSE -addext extendedKeyUsage=serverAuth "
            "-keyout '" +
            files.privateKeyFile.string() + "' -out '" + files.certificateFile.string() +
            "' 2>/dev/null";
        if (kxtest::run(command) != 0) {
            throw std::runtime_error("openssl could not make a certificate: " + command);
        }
        return files;
    }
};
