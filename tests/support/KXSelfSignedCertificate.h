#pragma once

#include <filesystem>
#include <string>

/// A throw-away TLS certificate for 127.0.0.1, signed with its own key (no separate authority),
/// and that key, as PEM files. A client trusts a server presenting it by using the certificate
/// file as its certificate-authority file.
struct KXSelfSignedCertificate {
    std::filesystem::path certificateFile;
    std::filesystem::path privateKeyFile;

    /// Makes a fresh P-256 key and a certificate for subjectAltName IP:127.0.0.1, valid from an
    /// hour ago for a day, and writes them as `<name>.crt` and `<name>.key` into `folder`.
    /// Throws std::runtime_error with OpenSSL's reason when a step fails.
    static KXSelfSignedCertificate create(const std::filesystem::path& folder,
                                          const std::string& name);
};
