// An HttpClient for tests. It answers from canned responses by URL, or hands each exchange on to
// a real client (`forwardTo`) after capping its time-out, so that a test of a slow server need not
// wait the full time-out. Records every exchange with the limits it was asked for; can be made to
// fail every exchange. Thread-safe.
#pragma once

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/ports/http_client.h"

namespace corvane::testing {

class FakeHttpClient final : public corvane::HttpClient {
 public:
  struct Call {
    std::string url;
    Limits limits;  // as the caller asked, before any cap
  };

  FakeHttpClient() = default;
  explicit FakeHttpClient(std::shared_ptr<HttpClient> forwardTo)
      : forwardTo_(std::move(forwardTo)) {}

  // Exchanges answered from here when there is no client to forward to; an unknown URL fails.
  void setResponse(const std::string& url, Response response) {
    std::lock_guard<std::mutex> lock(mutex_);
    response.url = url;
    responses_[url] = std::move(response);
  }
  // A forwarded exchange gets at most this time-out.
  void capTimeout(std::chrono::milliseconds cap) {
    std::lock_guard<std::mutex> lock(mutex_);
    timeoutCap_ = cap;
  }
  // Every exchange fails with a transport error.
  void failAll(bool fail) {
    std::lock_guard<std::mutex> lock(mutex_);
    failAll_ = fail;
  }
  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

  std::optional<Response> fetchOnce(std::string_view url, const Limits& limits,
                                    Error* error) override {
    Limits forwarded = limits;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(Call{std::string(url), limits});
      if (failAll_) {
        setError(error, Error::corvane(10000, "The fake HTTP client fails every request"));
        return std::nullopt;
      }
      if (!forwardTo_) {
        auto it = responses_.find(std::string(url));
        if (it == responses_.end()) {
          setError(error, Error::corvane(10000, "No canned response for " + std::string(url)));
          return std::nullopt;
        }
        return it->second;
      }
      if (timeoutCap_) forwarded.timeout = std::min(forwarded.timeout, *timeoutCap_);
    }
    return forwardTo_->fetchOnce(url, forwarded, error);
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<HttpClient> forwardTo_;
  std::map<std::string, Response> responses_;
  std::optional<std::chrono::milliseconds> timeoutCap_;
  bool failAll_ = false;
  std::vector<Call> calls_;
};

}  // namespace corvane::testing
