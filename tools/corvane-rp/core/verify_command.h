// `corvane-rp verify`: the offline verifier for relying-party developers. It reads a request and
// the response to it from files, prints one line per check and a closing count, and exits 0 only
// when nothing failed.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace corvane::rp {

inline constexpr int kVerifyExitOk = 0;
inline constexpr int kVerifyExitFailed = 1;  // a check failed
inline constexpr int kVerifyExitUsage = 2;   // bad arguments or unreadable files

extern const char* const kVerifyUsage;

// `args` are the words after "verify". `defaultRootPath` is the attestation root used without
// --attestation-root.
int runVerifyCommand(const std::vector<std::string>& args, const std::string& defaultRootPath,
                     std::ostream& out, std::ostream& err);

}  // namespace corvane::rp
