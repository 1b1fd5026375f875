#include "linux/curl_http_client.h"

#include <curl/curl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include "corvane/status_codes.h"

namespace corvane::linux_platform {

namespace {

Error httpError(std::string message) {
  return Error::corvane(code(CorvaneStatusCode::UNKNOWN), std::move(message));
}

// libcurl's global state is set up once, before any handle, from whichever thread comes first.
bool initialiseCurl() {
  static std::once_flag once;
  static bool ready = false;
  std::call_once(once, [] { ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; });
  return ready;
}

struct EasyFree {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct ListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                           text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

// What one exchange collects while libcurl runs it.
struct Exchange {
  size_t maxBodyBytes = 0;
  bool bodyTooLong = false;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
};

size_t receiveBody(char* data, size_t size, size_t count, void* context) {
  Exchange& exchange = *static_cast<Exchange*>(context);
  const size_t length = size * count;
  if (length > exchange.maxBodyBytes - exchange.body.size()) {
    exchange.bodyTooLong = true;
    return CURL_WRITEFUNC_ERROR;
  }
  exchange.body.append(data, length);
  return length;
}

// Called once per header line, status lines included; a new status line (after a 1xx) starts the
// fields afresh so that only the final response's are kept.
size_t receiveHeader(char* data, size_t size, size_t count, void* context) {
  Exchange& exchange = *static_cast<Exchange*>(context);
  const size_t length = size * count;
  const std::string_view line(data, length);
  if (line.starts_with("HTTP/")) {
    exchange.headers.clear();
    return length;
  }
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return length;
  exchange.headers.emplace_back(std::string(trimmed(line.substr(0, colon))),
                                std::string(trimmed(line.substr(colon + 1))));
  return length;
}

// libcurl's SSL context callback, run for each new connection once libcurl has loaded the system
// store: adds the extra CA certificates to that connection's store.
CURLcode addExtraCertificates(CURL* /*curl*/, void* sslContext, void* client) {
  X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
  for (const X509Ptr& certificate : static_cast<CurlHttpClient*>(client)->extraCertificates()) {
    // Adding a certificate the store already has succeeds in OpenSSL 3.
    if (X509_STORE_add_cert(store, certificate.get()) != 1) {
      ERR_clear_error();
      return CURLE_SSL_CACERT_BADFILE;
    }
  }
  return CURLE_OK;
}

}  // namespace

std::unique_ptr<CurlHttpClient> CurlHttpClient::open(const Options& options, Error* error) {
  if (!initialiseCurl()) {
    setError(error, httpError("libcurl could not be initialised"));
    return nullptr;
  }
  std::unique_ptr<CurlHttpClient> client(new CurlHttpClient());
  if (!options.extraCaFile) return client;

  const std::string file = options.extraCaFile->string();
  BioPtr bio(BIO_new_file(file.c_str(), "r"));
  if (!bio) {
    setError(error, httpError("Cannot read the CA file " + file));
    return nullptr;
  }
  while (true) {
    X509Ptr certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!certificate) break;
    client->extraCertificates_.push_back(std::move(certificate));
  }
  // The loop ends on the end of the file or on a damaged block; only the first is fine.
  const unsigned long last = ERR_peek_last_error();
  const bool endOfFile =
      ERR_GET_LIB(last) == ERR_LIB_PEM && ERR_GET_REASON(last) == PEM_R_NO_START_LINE;
  ERR_clear_error();
  if (client->extraCertificates_.empty() || !endOfFile) {
    setError(error, httpError("The CA file " + file + " holds no readable PEM certificates"));
    return nullptr;
  }
  return client;
}

std::optional<HttpClient::Response> CurlHttpClient::fetchOnce(std::string_view url,
                                                              const Limits& limits, Error* error) {
  const std::string target(url);
  if (limits.timeout.count() <= 0) {
    setError(error, httpError("The request to " + target + " timed out"));
    return std::nullopt;
  }
  if (target.find('\0') != std::string::npos) {
    setError(error, httpError("The URL holds a NUL character"));
    return std::nullopt;
  }
  if (!initialiseCurl()) {
    setError(error, httpError("libcurl could not be initialised"));
    return std::nullopt;
  }
  std::unique_ptr<CURL, EasyFree> easy(curl_easy_init());
  curl_slist* rawHeaders = curl_slist_append(nullptr, "Cache-Control: no-cache");
  std::unique_ptr<curl_slist, ListFree> requestHeaders(rawHeaders);
  if (rawHeaders != nullptr) {
    rawHeaders = curl_slist_append(rawHeaders, "Pragma: no-cache");
    if (rawHeaders == nullptr) requestHeaders.reset();
  }
  if (!easy || !requestHeaders) {
    setError(error, httpError("Cannot make a libcurl handle"));
    return std::nullopt;
  }

  Exchange exchange;
  exchange.maxBodyBytes = limits.maxBodyBytes;
  char errorText[CURL_ERROR_SIZE] = {};
  const char* protocols = limits.allowPlainHttp ? "http,https" : "https";
  CURL* handle = easy.get();
  bool configured =
      curl_easy_setopt(handle, CURLOPT_URL, target.c_str()) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, protocols) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, protocols) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_CA_CACHE_TIMEOUT, 0L) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED)) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(limits.timeout.count())) ==
          CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE,
                       static_cast<curl_off_t>(limits.maxBodyBytes)) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_HTTPHEADER, requestHeaders.get()) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &receiveBody) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_WRITEDATA, &exchange) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &receiveHeader) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_HEADERDATA, &exchange) == CURLE_OK &&
      curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText) == CURLE_OK;
  if (configured && !extraCertificates_.empty()) {
    configured =
        curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, &addExtraCertificates) == CURLE_OK &&
        curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, this) == CURLE_OK;
  }
  if (!configured) {
    setError(error, httpError("libcurl refused the request settings"));
    return std::nullopt;
  }

  const CURLcode result = curl_easy_perform(handle);
  if (result != CURLE_OK) {
    std::string message;
    if (exchange.bodyTooLong || result == CURLE_FILESIZE_EXCEEDED) {
      message = "The response from " + target + " is longer than " +
                std::to_string(limits.maxBodyBytes) + " bytes";
    } else if (result == CURLE_OPERATION_TIMEDOUT) {
      message = "The request to " + target + " timed out";
    } else {
      message = "The request to " + target + " failed: " +
                (errorText[0] != '\0' ? std::string(errorText) : curl_easy_strerror(result));
    }
    setError(error, httpError(std::move(message)));
    return std::nullopt;
  }

  Response response;
  response.url = target;
  long status = 0;
  char* redirect = nullptr;
  if (curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK ||
      curl_easy_getinfo(handle, CURLINFO_REDIRECT_URL, &redirect) != CURLE_OK) {
    setError(error, httpError("libcurl did not report the response of " + target));
    return std::nullopt;
  }
  response.status = status;
  if (redirect != nullptr && response.isRedirect()) response.redirectUrl = std::string(redirect);
  response.headers = std::move(exchange.headers);
  response.body = std::move(exchange.body);
  return response;
}

}  // namespace corvane::linux_platform
