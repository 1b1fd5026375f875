// corvane-rp: a test relying party. `corvane-rp serve ...` runs it over HTTPS, `corvane-rp
// verify ...` checks saved UAF messages offline; `corvane-rp --help` lists both.
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "corvane-rp/core/verify_command.h"
#include "corvane-rp/server.h"

namespace {

constexpr std::string_view kOverview =
    "corvane-rp - a test relying party for UAF 1.1 clients\n"
    "\n"
    "Usage: corvane-rp serve [options]    the relying party over HTTPS\n"
    "       corvane-rp verify [options]   offline verification of saved messages\n"
    "       corvane-rp --help\n"
    "\n"
    "Exit status: 0 when everything passed, 1 when a check failed, 2 on a usage error.\n"
    "\n";

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h") {
    std::cout << kOverview << corvane::rp::kServeUsage << "\n" << corvane::rp::kVerifyUsage;
    return args.empty() ? corvane::rp::kVerifyExitUsage : corvane::rp::kVerifyExitOk;
  }
  if (args[0] == "serve") {
    return corvane::rp::runServeCommand({args.begin() + 1, args.end()}, CORVANE_RP_DEFAULT_ROOT);
  }
  if (args[0] == "verify") {
    return corvane::rp::runVerifyCommand({args.begin() + 1, args.end()}, CORVANE_RP_DEFAULT_ROOT,
                                         std::cout, std::cerr);
  }
  std::cerr << "corvane-rp: unknown command " << args[0] << "\nRun 'corvane-rp --help'.\n";
  return corvane::rp::kVerifyExitUsage;
}
