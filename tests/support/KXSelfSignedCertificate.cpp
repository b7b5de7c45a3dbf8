#include "KXSelfSignedCertificate.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <memory>
#include <stdexcept>

namespace {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* pointer) const {
        Free(pointer);
    }
};

using KeyPointer = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using CertificatePointer = std::unique_ptr<X509, Deleter<X509_free>>;
using ExtensionPointer = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;
using FilePointer = std::unique_ptr<BIO, Deleter<BIO_free_all>>;

[[noreturn]] void fail(const std::string& step) {
    std::string reason = "no reason given";
    if (const unsigned long code = ERR_get_error(); code != 0) {
        std::array<char, 256> text{};
        ERR_error_string_n(code, text.data(), text.size());
        reason = text.data();
    }
    ERR_clear_error();
    throw std::runtime_error("self-signed certificate: " + step + " failed: " + reason);
}

void check(bool succeeded, const std::string& step) {
    if (!succeeded) {
        fail(step);
    }
}

void addExtension(X509* certificate, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const ExtensionPointer extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
    check(extension != nullptr, std::string("making extension ") + value);
    check(X509_add_ext(certificate, extension.get(), -1) == 1, "adding an extension");
}

void setRandomSerial(X509* certificate) {
    std::array<unsigned char, 16> bytes{};
    check(RAND_bytes(bytes.data(), bytes.size()) == 1, "drawing a serial number");
    bytes[0] &= 0x7F;  // serial numbers are positive
    const std::unique_ptr<BIGNUM, Deleter<BN_free>> number(
        BN_bin2bn(bytes.data(), bytes.size(), nullptr));
    check(number != nullptr &&
              BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr,
          "setting the serial number");
}

FilePointer openForWriting(const std::filesystem::path& path) {
    FilePointer file(BIO_new_file(path.c_str(), "w"));
    check(file != nullptr, "opening " + path.string());
    return file;
}

}  // namespace

KXSelfSignedCertificate KXSelfSignedCertificate::create(const std::filesystem::path& folder,
                                                        const std::string& name) {
    const KeyPointer key(EVP_EC_gen("P-256"));
    check(key != nullptr, "making a P-256 key");

    const CertificatePointer certificate(X509_new());
    check(certificate != nullptr, "making a certificate");
    X509* const cert = certificate.get();
    check(X509_set_version(cert, X509_VERSION_3) == 1, "setting the version");
    setRandomSerial(cert);
    check(X509_gmtime_adj(X509_getm_notBefore(cert), -60L * 60) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(cert), 24L * 60 * 60) != nullptr,
          "setting the validity");
    X509_NAME* const subject = X509_get_subject_name(cert);
    check(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                                     reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1,
                                     0) == 1,
          "setting the subject");
    check(X509_set_issuer_name(cert, subject) == 1, "setting the issuer");
    check(X509_set_pubkey(cert, key.get()) == 1, "setting the public key");
    // Clients match the address against the subjectAltName, never the common name.
    addExtension(cert, NID_subject_alt_name, "IP:127.0.0.1");
    addExtension(cert, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(cert, NID_ext_key_usage, "serverAuth");
    addExtension(cert, NID_subject_key_identifier, "hash");
    check(X509_sign(cert, key.get(), EVP_sha256()) > 0, "signing");

    KXSelfSignedCertificate files;
    files.certificateFile = folder / (name + ".crt");
    files.privateKeyFile = folder / (name + ".key");
    const FilePointer certificateOut = openForWriting(files.certificateFile);
    check(PEM_write_bio_X509(certificateOut.get(), cert) == 1, "writing the certificate");
    const FilePointer keyOut = openForWriting(files.privateKeyFile);
    check(PEM_write_bio_PrivateKey(keyOut.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                   nullptr) == 1,
          "writing the key");
    return files;
}
