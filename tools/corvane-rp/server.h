// `corvane-rp serve`: the relying party over HTTPS (cpp-httplib with OpenSSL).
// docs/relying-party.md describes the endpoints; kServeUsage is the --help text.
#pragma once

#include <string>
#include <vector>

namespace corvane::rp {

extern const char* const kServeUsage;

// `args` are the words after "serve". Runs until the process is stopped; returns the exit status
// when it cannot start (2 for a usage error, 1 when the state or the socket cannot be set up).
int runServeCommand(const std::vector<std::string>& args, const std::string& defaultRootPath);

}  // namespace corvane::rp
