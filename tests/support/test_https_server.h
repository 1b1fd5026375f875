// Local servers for the HTTP client's tests, all on 127.0.0.1 and a port the system picks.
//
// TestCa makes, at run time, a certificate authority and server certificates it issues for
// "127.0.0.1" and "localhost"; nothing is read from or kept in the source tree. TestHttpServer
// serves canned responses by path over TLS 1.2+ (https), over TLS 1.0/1.1 only (legacyTls) or in
// clear (http), and counts the requests that reach it. SilentServer accepts connections and never
// sends a byte.
#pragma once

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "crypto/openssl_handles.h"

namespace httplib {
class Server;
}

namespace corvane::testing {

class TestCa {
 public:
  // A new P-256 CA named `name`.
  explicit TestCa(const std::string& name);

  // A new key and a certificate for it, issued by this CA for "127.0.0.1" and "localhost".
  struct Issued {
    X509Ptr certificate;
    PkeyPtr key;
  };
  Issued issueServerCertificate() const;

  // Writes the CA certificate as PEM to `file`.
  void writePem(const std::filesystem::path& file) const;

 private:
  PkeyPtr key_;
  X509Ptr certificate_;
  mutable long nextSerial_ = 2;
};

class TestHttpServer {
 public:
  enum class Kind { https, legacyTls, http };

  struct Canned {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // Sent in chunks of 64 KiB without a Content-Length, so the size shows only as it arrives.
    bool chunked = false;
  };

  // `ca` issues the certificate of a TLS server; null for http.
  TestHttpServer(Kind kind, const TestCa* ca);
  ~TestHttpServer();
  TestHttpServer(const TestHttpServer&) = delete;
  TestHttpServer& operator=(const TestHttpServer&) = delete;

  // False when the server could not be set up or bound.
  bool running() const { return port_ > 0; }
  int port() const { return port_; }
  // "https://127.0.0.1:<port><path>" ("http://" for a clear server).
  std::string url(const std::string& path) const;

  // What a GET of `path` (query ignored) answers; an unknown path answers 404 with no body.
  void serve(const std::string& path, Canned response);
  // A 302 to `location`, with "FIDO-AppID-Redirect-Authorized" set to `authorized` when given.
  void redirect(const std::string& path, const std::string& location,
                std::optional<std::string> authorized);

  // Requests that reached the server (after any TLS handshake), and their paths in order.
  int requests() const { return requestCount_.load(); }
  std::vector<std::string> paths() const;

 private:
  Kind kind_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = -1;
  std::atomic<int> requestCount_{0};
  mutable std::mutex mutex_;
  std::map<std::string, Canned> responses_;
  std::vector<std::string> paths_;
};

// Accepts TCP connections on 127.0.0.1 and holds them open without reading or writing.
class SilentServer {
 public:
  SilentServer();
  ~SilentServer();
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;

  int port() const { return port_; }
  int accepted() const { return accepted_.load(); }

 private:
  int listener_ = -1;
  int wake_[2] = {-1, -1};
  int port_ = -1;
  std::atomic<int> accepted_{0};
  std::vector<int> connections_;
  std::thread thread_;
};

// The TLS version (TLS1_VERSION, TLS1_1_VERSION, ...) that a handshake with 127.0.0.1:`port`
// settles on when the client offers only `minVersion` to `maxVersion`, without verifying the
// server; absent when the handshake fails.
std::optional<int> negotiatedTlsVersion(int port, int minVersion, int maxVersion);

}  // namespace corvane::testing
