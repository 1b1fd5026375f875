// HttpClient: the port for the library's one kind of network traffic, a GET of a document over
// HTTPS (the trusted-facets list of an application identifier).
//
// What every implementation must honour, whatever the caller asks:
// - TLS 1.2 or later, with the server's certificate chain and host name always verified;
// - nothing kept between calls: no cache, no cookies, no stored or prompted credentials;
// - no redirect followed on its own: fetchOnce() answers a 3xx as it is, and get() asks the
//   caller's hook about each one;
// - the body read no further than the caller's limit, checked while it arrives;
// - plain http only when the request allows it.
//
// Calls are synchronous: fetchOnce() and get() return when the exchange has ended (a response, a
// transport failure or the time-out). A caller that must not block runs them as background work.
// Thread-safety: fetchOnce() and get() may be called from any thread, several at the same time;
// each call uses state of its own.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/error.h"
#include "corvane/status_codes.h"

namespace corvane {

class HttpClient {
 public:
  // One HTTP response, as received.
  struct Response {
    // The URL that was asked for.
    std::string url;
    long status = 0;
    // Header fields of the final response (interim 1xx responses are dropped), names as sent.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // For a 3xx with a Location field: the absolute URL it names, resolved against `url`.
    std::optional<std::string> redirectUrl;

    // The value of the first header field named `name`, ASCII case ignored; absent when none.
    [[nodiscard]] std::optional<std::string> header(std::string_view name) const {
      for (const auto& [fieldName, value] : headers) {
        if (fieldName.size() != name.size()) continue;
        bool same = true;
        for (size_t i = 0; i < name.size() && same; ++i) {
          same = lowerAscii(fieldName[i]) == lowerAscii(name[i]);
        }
        if (same) return value;
      }
      return std::nullopt;
    }
    bool isRedirect() const { return status >= 300 && status <= 399; }

   private:
    static char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
  };

  // Limits of one exchange.
  struct Limits {
    // Connection, TLS handshake, request and the whole body must end within this time.
    std::chrono::milliseconds timeout{10000};
    // A body longer than this fails the exchange as soon as the excess arrives.
    size_t maxBodyBytes = size_t{1} << 20;
    // Whether "http:" URLs may be fetched at all; "https:" always may.
    bool allowPlainHttp = false;
  };

  // A GET that may follow redirects.
  struct Request {
    std::string url;
    // The time-out covers the whole request, every redirect included.
    Limits limits;
    // Redirects followed at most; a 3xx met after that many is the final response.
    unsigned maxRedirects = 5;
  };

  // Asked about each 3xx response that names where to go: true follows `redirect.redirectUrl`,
  // false makes this 3xx the final response.
  using RedirectHook = std::function<bool(const Response& redirect)>;

  virtual ~HttpClient() = default;

  // One GET of `url`, no redirect followed. Absent, with the error, when the exchange failed: a
  // URL that is malformed or of a refused scheme, a connection, certificate or TLS failure, the
  // time-out, or a body over the limit.
  [[nodiscard]] virtual std::optional<Response> fetchOnce(std::string_view url,
                                                          const Limits& limits, Error* error) = 0;

  // A GET of `request.url` that asks `hook` about each redirect and follows those it allows, up to
  // `request.maxRedirects`, within one time-out for the whole. Absent, with the error, when any
  // exchange failed.
  [[nodiscard]] std::optional<Response> get(const Request& request, const RedirectHook& hook,
                                            Error* error) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + request.limits.timeout;
    std::string url = request.url;
    for (unsigned followed = 0;; ++followed) {
      Limits limits = request.limits;
      limits.timeout =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (limits.timeout.count() <= 0) {
        setError(error, Error::corvane(code(CorvaneStatusCode::UNKNOWN),
                                       "The request to " + url + " timed out"));
        return std::nullopt;
      }
      std::optional<Response> response = fetchOnce(url, limits, error);
      if (!response || !response->isRedirect() || !response->redirectUrl) return response;
      if (followed == request.maxRedirects || !hook || !hook(*response)) return response;
      url = *response->redirectUrl;
    }
  }
};

}  // namespace corvane
