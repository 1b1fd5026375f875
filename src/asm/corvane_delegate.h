// CorvaneDelegate: how the ASM answers the client. The interfaces between the ASM and the
// authenticators (AuthenticatorFeature, AsmDelegate) sit one layer down, in
// authenticator/authenticator_feature.h, so that authenticators need nothing of the ASM.
#pragma once

#include <optional>

#include "asm/asm_records.h"
#include "corvane/error.h"

namespace corvane {

class CorvaneDelegate {
 public:
  virtual ~CorvaneDelegate() = default;
  virtual void asmRegisterResponse(const AsmResponse& response,
                                   const std::optional<Error>& error) = 0;
  virtual void asmAuthenticateResponse(const AsmResponse& response,
                                       const std::optional<Error>& error) = 0;
};

}  // namespace corvane
