#include "client/flow_support.h"

#include "policy/policy_helper.h"

namespace corvane {

RequestCheckContext Corvane::Impl::requestCheckContext(const ExtsData& extsData) const {
  RequestCheckContext context;
  context.policy.checkMatchCriteriaValid = [](const nlohmann::json& criteria) {
    return PolicyHelper::checkMatchCriteriaValid(criteria);
  };
  context.policy.deviceModelName = policy.getDeviceModelName();
  context.extsData = extsData;
  return context;
}

std::optional<Error> Corvane::Impl::facetRefusal(const std::optional<OperationHeader>& header) {
  const std::string facet = facetID();
  if (!header || !header->appID || header->appID->empty() || *header->appID == facet) {
    return std::nullopt;
  }
  if (facetTrust.checkTrustedFacetID(*header->appID)) return std::nullopt;
  return clientError(CorvaneStatusCode::UNTRUSTED_FACET_ID,
                     "facetID:" + facet + " is not trusted under " + *header->appID);
}

Error hostError(uint64_t status, const std::optional<Error>& error) {
  const int64_t asmCode = error ? error->code() : static_cast<int64_t>(status);
  return Error::corvane(AsmStatusCodeTranslater::translate(asmCode),
                        error ? error->message() : std::nullopt);
}

Error successError(const std::optional<Error>& error) {
  return Error::corvane(code(CorvaneStatusCode::NO_ERROR), error ? error->message() : std::nullopt);
}

Error clientError(CorvaneStatusCode status, std::string_view text) {
  return Error::corvane(code(status), std::string(text));
}

}  // namespace corvane
