#include "support/test_https_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>

#include <httplib.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

namespace corvane::testing {

namespace {

using SslCtxPtr = OpensslPtr<SSL_CTX, SSL_CTX_free>;
using SslPtr = OpensslPtr<SSL, SSL_free>;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test TLS setup failed: ") + what);
}

PkeyPtr makeKey() {
  PkeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  check(key != nullptr, "key generation");
  return key;
}

void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509ExtensionPtr extension(
      X509V3_EXT_nconf_nid(nullptr, &context, nid, const_cast<char*>(value)));
  check(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1, value);
}

// A certificate for `key` named `commonName`; self-signed when `issuer` is null.
X509Ptr makeCertificate(const std::string& commonName, EVP_PKEY* key, long serial, X509* issuer,
                        EVP_PKEY* issuerKey) {
  X509Ptr certificate(X509_new());
  check(certificate != nullptr, "X509_new");
  X509* cert = certificate.get();
  X509_NAME* name = X509_NAME_new();
  check(name != nullptr, "X509_NAME_new");
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  const bool ok =
      X509_set_version(cert, X509_VERSION_3) == 1 &&
      ASN1_INTEGER_set(X509_get_serialNumber(cert), serial) == 1 &&
      X509_gmtime_adj(X509_getm_notBefore(cert), -3600) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(cert), 86400) != nullptr &&
      X509_set_pubkey(cert, key) == 1 && X509_set_subject_name(cert, name) == 1 &&
      X509_set_issuer_name(cert, issuer != nullptr ? X509_get_subject_name(issuer) : name) == 1;
  X509_NAME_free(name);
  check(ok, "certificate fields");
  X509* signer = issuer != nullptr ? issuer : cert;
  if (issuer == nullptr) {
    addExtension(cert, signer, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(cert, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(cert, signer, NID_subject_key_identifier, "hash");
  } else {
    addExtension(cert, signer, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(cert, signer, NID_key_usage, "critical,digitalSignature");
    addExtension(cert, signer, NID_ext_key_usage, "serverAuth");
    addExtension(cert, signer, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    addExtension(cert, signer, NID_authority_key_identifier, "keyid:always");
  }
  check(X509_sign(cert, issuer != nullptr ? issuerKey : key, EVP_sha256()) > 0, "X509_sign");
  return certificate;
}

}  // namespace

TestCa::TestCa(const std::string& name) : key_(makeKey()) {
  certificate_ = makeCertificate(name, key_.get(), 1, nullptr, nullptr);
}

TestCa::Issued TestCa::issueServerCertificate() const {
  Issued issued;
  issued.key = makeKey();
  issued.certificate =
      makeCertificate("127.0.0.1", issued.key.get(), nextSerial_++, certificate_.get(), key_.get());
  return issued;
}

void TestCa::writePem(const std::filesystem::path& file) const {
  BioPtr bio(BIO_new_file(file.string().c_str(), "w"));
  check(bio != nullptr && PEM_write_bio_X509(bio.get(), certificate_.get()) == 1, "CA PEM file");
}

TestHttpServer::TestHttpServer(Kind kind, const TestCa* ca) : kind_(kind) {
  if (kind == Kind::http) {
    server_ = std::make_unique<httplib::Server>();
  } else {
    if (ca == nullptr) return;
    // The context owns its own references to the certificate and key.
    TestCa::Issued issued = ca->issueServerCertificate();
    const bool legacy = kind == Kind::legacyTls;
    server_ = std::make_unique<httplib::SSLServer>([&issued, legacy](SSL_CTX& context) {
      if (SSL_CTX_use_certificate(&context, issued.certificate.get()) != 1 ||
          SSL_CTX_use_PrivateKey(&context, issued.key.get()) != 1) {
        return false;
      }
      if (!legacy) return SSL_CTX_set_min_proto_version(&context, TLS1_2_VERSION) == 1;
      // TLS 1.0 and 1.1 sign with SHA-1, which OpenSSL 3 refuses above security level 0.
      SSL_CTX_set_security_level(&context, 0);
      return SSL_CTX_set_min_proto_version(&context, TLS1_VERSION) == 1 &&
             SSL_CTX_set_max_proto_version(&context, TLS1_1_VERSION) == 1 &&
             SSL_CTX_set_cipher_list(&context, "DEFAULT:@SECLEVEL=0") == 1;
    });
  }
  if (!server_->is_valid()) return;
  server_->Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
    ++requestCount_;
    std::lock_guard<std::mutex> lock(mutex_);
    paths_.push_back(request.path);
    auto canned = responses_.find(request.path);
    if (canned == responses_.end()) {
      response.status = 404;
      return;
    }
    response.status = canned->second.status;
    for (const auto& [name, value] : canned->second.headers) response.set_header(name, value);
    if (!canned->second.chunked) {
      response.set_content(canned->second.body, "application/json");
      return;
    }
    auto body = std::make_shared<const std::string>(canned->second.body);
    response.set_chunked_content_provider(
        "application/json", [body](size_t offset, httplib::DataSink& sink) {
          if (offset >= body->size()) {
            sink.done();
            return true;
          }
          const size_t length = std::min<size_t>(64 * 1024, body->size() - offset);
          return sink.write(body->data() + offset, length);
        });
  });
  const int port = server_->bind_to_any_port("127.0.0.1");
  if (port <= 0) return;
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // stop() only reaches a loop that has started.
  while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  port_ = port;
}

TestHttpServer::~TestHttpServer() {
  if (thread_.joinable()) {
    server_->stop();
    thread_.join();
  }
}

std::string TestHttpServer::url(const std::string& path) const {
  return (kind_ == Kind::http ? "http://127.0.0.1:" : "https://127.0.0.1:") +
         std::to_string(port_) + path;
}

void TestHttpServer::serve(const std::string& path, Canned response) {
  std::lock_guard<std::mutex> lock(mutex_);
  responses_[path] = std::move(response);
}

void TestHttpServer::redirect(const std::string& path, const std::string& location,
                              std::optional<std::string> authorized) {
  Canned response;
  response.status = 302;
  response.headers.emplace_back("Location", location);
  if (authorized) response.headers.emplace_back("FIDO-AppID-Redirect-Authorized", *authorized);
  serve(path, std::move(response));
}

std::vector<std::string> TestHttpServer::paths() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return paths_;
}

SilentServer::SilentServer() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  check(listener_ >= 0 && ::pipe(wake_) == 0, "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  check(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
            ::listen(listener_, 16) == 0 &&
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0,
        "listen");
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] {
    while (true) {
      pollfd watched[2] = {{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
      if (::poll(watched, 2, -1) < 0) continue;
      if (watched[1].revents != 0) return;
      const int connection = ::accept(listener_, nullptr, nullptr);
      if (connection < 0) continue;
      connections_.push_back(connection);
      ++accepted_;
    }
  });
}

SilentServer::~SilentServer() {
  if (thread_.joinable()) {
    const char stop = 0;
    static_cast<void>(::write(wake_[1], &stop, 1));
    thread_.join();
  }
  for (int connection : connections_) ::close(connection);
  for (int fd : {listener_, wake_[0], wake_[1]}) {
    if (fd >= 0) ::close(fd);
  }
}

std::optional<int> negotiatedTlsVersion(int port, int minVersion, int maxVersion) {
  SslCtxPtr context(SSL_CTX_new(TLS_client_method()));
  if (!context) return std::nullopt;
  SSL_CTX_set_security_level(context.get(), 0);
  if (SSL_CTX_set_min_proto_version(context.get(), minVersion) != 1 ||
      SSL_CTX_set_max_proto_version(context.get(), maxVersion) != 1 ||
      SSL_CTX_set_cipher_list(context.get(), "DEFAULT:@SECLEVEL=0") != 1) {
    return std::nullopt;
  }
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::nullopt;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  std::optional<int> version;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
    SslPtr ssl(SSL_new(context.get()));
    if (ssl && SSL_set_fd(ssl.get(), fd) == 1 && SSL_connect(ssl.get()) == 1) {
      version = SSL_version(ssl.get());
      SSL_shutdown(ssl.get());
    }
  }
  ::close(fd);
  return version;
}

}  // namespace corvane::testing
