// The caller's facet ID and the check that another party's application identifier trusts it.
//
// The trust list is a JSON document fetched from the application identifier's URL over HTTPS. The
// fetch is bounded because the server being asked must not be able to steer the client: one
// time-out for the whole fetch, at most five redirects and only those the server marks as
// authorised, https only (outside development mode), and at most 1 MiB of body. docs/facets.md
// states the rules.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "configuration/configuration.h"
#include "corvane/ports/http_client.h"

namespace corvane {

class FacetTrust {
 public:
  static constexpr std::string_view kFacetIdPrefix = "ios:bundle-id:";
  // The response header by which a server authorises a redirect of the trusted-facets fetch.
  static constexpr std::string_view kRedirectAuthorizedHeader = "FIDO-AppID-Redirect-Authorized";
  // Longest application identifier fetched, in UTF-16 code units.
  static constexpr size_t kMaxAppIdLength = 512;
  static constexpr std::chrono::milliseconds kTimeout{10000};
  static constexpr unsigned kMaxRedirects = 5;
  static constexpr size_t kMaxDocumentBytes = size_t{1} << 20;

  // `configuration` (the host's bundle identifier and development switch) and `http` must outlive
  // this object.
  FacetTrust(const Configuration& configuration, HttpClient& http)
      : configuration_(configuration), http_(http) {}

  // "ios:bundle-id:" and the host application's bundle identifier.
  std::string facetID() const;

  // Whether the trusted-facets document at `appID` lists this application's facet ID. Blocks the
  // calling thread until the fetch has ended (at most the time-out). Every failure (refused URL,
  // transport error, time-out, refused redirect, oversized or malformed document, no matching
  // entry) answers false; nothing is stored.
  bool checkTrustedFacetID(std::string_view appID) const;

  // Whether to follow a 3xx `redirect`: only when it carries "FIDO-AppID-Redirect-Authorized" with
  // a value that reads as true, and, outside development mode, leads to an https URL.
  static bool shouldFollowRedirect(const HttpClient::Response& redirect, bool devMode);

  // Whether `document` (a trusted-facets JSON text) lists `facetID`, exactly, under version 1.0.
  static bool documentTrusts(std::string_view document, std::string_view facetID);

 private:
  const Configuration& configuration_;
  HttpClient& http_;
};

}  // namespace corvane
