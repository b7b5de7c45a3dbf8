#pragma once

#include "KXSelfSignedCertificate.h"

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

/// A real HTTP/2 server over TLS on 127.0.0.1 at a free port: nghttpd (Debian package
/// nghttp2-server) run as a child process, serving the files of a scratch document root with a
/// fresh self-signed certificate for 127.0.0.1. nghttpd answers every method with the file at the
/// request's path (404 when there is none) and speaks HTTP/2 only; its verbose log of frames is
/// captured to a file. The constructor throws std::runtime_error when nghttpd is not installed
/// or does not start; the server stops with the object or with the thread that started it.
class KXHTTP2Server {
public:
    KXHTTP2Server();
    ~KXHTTP2Server();
    KXHTTP2Server(const KXHTTP2Server&) = delete;
    KXHTTP2Server& operator=(const KXHTTP2Server&) = delete;

    int port() const { return port_; }
    /// "https://127.0.0.1:<port>".
    std::string baseURL() const { return "https://127.0.0.1:" + std::to_string(port_); }
    /// The server's certificate: the certificate-authority file a client must trust.
    const std::filesystem::path& certificateFile() const { return certificate_.certificateFile; }
    /// A folder for further files of the test, outside the document root.
    const std::filesystem::path& scratchDirectory() const { return scratch_; }

    /// Serves `content` at `path` (absolute, such as "/inbox.json").
    void addDocument(const std::string& path, const std::string& content);

    /// What nghttpd logged so far.
    std::string log() const;
    /// For each connection that carried requests, in the order they were accepted, the number
    /// of request streams the server received on it.
    std::vector<std::size_t> requestStreamsPerConnection() const;

private:
    bool tryToStart(int port);
    void stop();

    std::filesystem::path program_;
    std::filesystem::path scratch_;
    std::filesystem::path documentRoot_;
    std::filesystem::path logFile_;
    KXSelfSignedCertificate certificate_;
    int port_ = 0;
    pid_t pid_ = -1;
};
