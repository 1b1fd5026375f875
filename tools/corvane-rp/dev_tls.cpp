#include "corvane-rp/dev_tls.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>
#include <functional>

#include "crypto/openssl_handles.h"

namespace corvane::rp {
namespace {

constexpr long kValiditySeconds = 10L * 365 * 24 * 3600;

Error tlsError(std::string message) {
  return Error::corvane(1, std::move(message));
}

bool addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

X509Ptr makeCertificate(EVP_PKEY* subjectKey, const char* commonName, long serial) {
  X509Ptr certificate(X509_new());
  if (!certificate) return nullptr;
  X509_NAME* name = X509_get_subject_name(certificate.get());
  const bool ok =
      X509_set_version(certificate.get(), 2) == 1 &&
      ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial) == 1 &&
      X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kValiditySeconds) != nullptr &&
      X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                 reinterpret_cast<const unsigned char*>(commonName), -1, -1,
                                 0) == 1 &&
      X509_set_pubkey(certificate.get(), subjectKey) == 1;
  return ok ? std::move(certificate) : nullptr;
}

bool writePem(const std::filesystem::path& path, mode_t mode,
              const std::function<int(BIO*)>& write) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  ::close(fd);
  BioPtr bio(BIO_new_file(path.c_str(), "w"));
  return bio && write(bio.get()) == 1;
}

}  // namespace

Result<TlsFiles> ensureTlsFiles(const std::filesystem::path& stateDir) {
  TlsFiles files{stateDir / "ca.pem", stateDir / "server.pem", stateDir / "server.key"};
  std::error_code ec;
  if (std::filesystem::exists(files.caCertificate, ec) &&
      std::filesystem::exists(files.serverCertificate, ec) &&
      std::filesystem::exists(files.serverKey, ec)) {
    return files;
  }
  PkeyPtr caKey(EVP_EC_gen("P-256"));
  PkeyPtr serverKey(EVP_EC_gen("P-256"));
  if (!caKey || !serverKey) return tlsError("cannot make the TLS keys");
  X509Ptr ca = makeCertificate(caKey.get(), "corvane-rp development CA (DEVELOPMENT ONLY)", 1);
  X509Ptr server = makeCertificate(serverKey.get(), "localhost", 2);
  if (!ca || !server) return tlsError("cannot make the TLS certificates");
  const bool caOk = X509_set_issuer_name(ca.get(), X509_get_subject_name(ca.get())) == 1 &&
                    addExtension(ca.get(), ca.get(), NID_basic_constraints, "critical,CA:TRUE") &&
                    addExtension(ca.get(), ca.get(), NID_key_usage, "critical,keyCertSign") &&
                    addExtension(ca.get(), ca.get(), NID_subject_key_identifier, "hash") &&
                    X509_sign(ca.get(), caKey.get(), EVP_sha256()) > 0;
  const bool serverOk =
      X509_set_issuer_name(server.get(), X509_get_subject_name(ca.get())) == 1 &&
      addExtension(server.get(), ca.get(), NID_basic_constraints, "critical,CA:FALSE") &&
      addExtension(server.get(), ca.get(), NID_key_usage, "critical,digitalSignature") &&
      addExtension(server.get(), ca.get(), NID_ext_key_usage, "serverAuth") &&
      addExtension(server.get(), ca.get(), NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1") &&
      addExtension(server.get(), ca.get(), NID_authority_key_identifier, "keyid:always") &&
      X509_sign(server.get(), caKey.get(), EVP_sha256()) > 0;
  if (!caOk || !serverOk) return tlsError("cannot sign the TLS certificates");
  const bool written = writePem(files.serverKey, 0600,
                                [&](BIO* bio) {
                                  return PEM_write_bio_PrivateKey(bio, serverKey.get(), nullptr,
                                                                  nullptr, 0, nullptr, nullptr);
                                }) &&
                       writePem(files.serverCertificate, 0644,
                                [&](BIO* bio) { return PEM_write_bio_X509(bio, server.get()); }) &&
                       writePem(files.caCertificate, 0644,
                                [&](BIO* bio) { return PEM_write_bio_X509(bio, ca.get()); });
  if (!written) return tlsError("cannot write the TLS files into " + stateDir.string());
  return files;
}

}  // namespace corvane::rp
