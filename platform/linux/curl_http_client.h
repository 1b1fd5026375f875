// The Linux HttpClient on libcurl (OpenSSL flavour).
//
// Every call runs on a fresh easy handle of its own, so nothing (connections, cookies, DNS, CA
// store) outlives it; libcurl's own redirect following, cookie engine, .netrc and CA cache are
// off. TLS 1.2 is the lowest version offered, and peer and host name verification are always on.
// The trust anchors are the system store plus, when given, the certificates of an extra PEM file,
// which are added to each connection's OpenSSL store (libcurl's CAINFO would replace the system
// bundle instead of adding to it). The protocol list of each handle is "https", or "http,https"
// when the limits allow plain http.
//
// Thread-safety: fetchOnce() may be called from any thread, several at the same time.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "corvane/error.h"
#include "corvane/ports/http_client.h"
#include "crypto/openssl_handles.h"

namespace corvane::linux_platform {

class CurlHttpClient final : public HttpClient {
 public:
  struct Options {
    // A PEM file of CA certificates trusted besides the system store.
    std::optional<std::filesystem::path> extraCaFile;
  };

  // Absent, with the error, when the extra CA file cannot be read or holds no certificate, or
  // libcurl cannot be initialised.
  [[nodiscard]] static std::unique_ptr<CurlHttpClient> open(const Options& options, Error* error);

  [[nodiscard]] std::optional<Response> fetchOnce(std::string_view url, const Limits& limits,
                                                  Error* error) override;

  // The certificates of the extra CA file, in file order.
  const std::vector<X509Ptr>& extraCertificates() const { return extraCertificates_; }

 private:
  CurlHttpClient() = default;

  std::vector<X509Ptr> extraCertificates_;
};

}  // namespace corvane::linux_platform
