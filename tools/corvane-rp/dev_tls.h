// The server's development TLS identity: a self-signed development CA and a server certificate
// it issued for "localhost" and 127.0.0.1, made on first start in the state directory. The CA's
// private key is discarded once the server certificate is signed, so nothing else can be issued
// under it; a client trusts the server by trusting ca.pem.
#pragma once

#include <filesystem>
#include <string>

#include "foundation/result.h"

namespace corvane::rp {

struct TlsFiles {
  std::filesystem::path caCertificate;      // ca.pem
  std::filesystem::path serverCertificate;  // server.pem
  std::filesystem::path serverKey;          // server.key, mode 0600
};

// The files in `stateDir`, made when any of them is missing.
[[nodiscard]] Result<TlsFiles> ensureTlsFiles(const std::filesystem::path& stateDir);

}  // namespace corvane::rp
