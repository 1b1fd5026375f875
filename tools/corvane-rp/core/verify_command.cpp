#include "corvane-rp/core/verify_command.h"

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>

#include "corvane-rp/core/verifier.h"
#include "json/json_text.h"

namespace corvane::rp {

const char* const kVerifyUsage =
    "Usage: corvane-rp verify --request REQ --response RESP [--registration REG]\n"
    "                         [--facet-id ID]... [--attestation-root PEM] [--out REG]\n"
    "\n"
    "Verifies a UAF registration or authentication response against the request it answers\n"
    "(the request's op decides which). An authentication needs the registration record that\n"
    "the registration wrote with --out. Prints \"ok NAME\" or \"FAIL NAME: reason\" per check and\n"
    "\"N passed, M failed\"; exit status 0 when nothing failed, 1 when a check failed, 2 on a\n"
    "usage error or an unreadable file.\n"
    "\n"
    "  --request REQ           the UAF request text the server issued\n"
    "  --response RESP         the UAF response text the client returned\n"
    "  --registration REG      registration record(s) for an authentication\n"
    "  --facet-id ID           a trusted facet ID besides the appID (repeatable)\n"
    "  --attestation-root PEM  attestation root certificate(s), PEM\n"
    "  --out REG               write the registration record (after a registration) or the\n"
    "                          record with the raised sign counter (after an authentication)\n";

namespace {

std::optional<std::string> readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

int usage(std::ostream& err, const std::string& message) {
  err << "corvane-rp verify: " << message << "\n" << kVerifyUsage;
  return kVerifyExitUsage;
}

// A record file holds one registration object or an array of them.
std::optional<std::vector<Registration>> readRegistrations(const std::string& text) {
  std::optional<nlohmann::json> parsed = jsonmodel::parseJson(text, nullptr);
  if (!parsed) return std::nullopt;
  const nlohmann::json items = parsed->is_array() ? *parsed : nlohmann::json::array({*parsed});
  std::vector<Registration> out;
  for (const nlohmann::json& item : items) {
    Result<Registration> r = Registration::fromJson(jsonmodel::dumpJson(item));
    if (!r) return std::nullopt;
    out.push_back(std::move(*r));
  }
  return out;
}

std::string recordsText(const std::vector<Registration>& records) {
  if (records.size() == 1) return records.front().toJson() + "\n";
  std::string out = "[";
  for (size_t i = 0; i < records.size(); ++i) out += (i ? "," : "") + records[i].toJson();
  return out + "]\n";
}

}  // namespace

int runVerifyCommand(const std::vector<std::string>& args, const std::string& defaultRootPath,
                     std::ostream& out, std::ostream& err) {
  std::optional<std::string> requestPath, responsePath, registrationPath, outPath;
  std::string rootPath = defaultRootPath;
  TrustSettings trust;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& option = args[i];
    if (option == "--help" || option == "-h") {
      out << kVerifyUsage;
      return kVerifyExitOk;
    }
    if (i + 1 >= args.size()) return usage(err, "missing value or unknown option " + option);
    const std::string& value = args[++i];
    if (option == "--request")
      requestPath = value;
    else if (option == "--response")
      responsePath = value;
    else if (option == "--registration")
      registrationPath = value;
    else if (option == "--facet-id")
      trust.trustedFacetIds.push_back(value);
    else if (option == "--attestation-root")
      rootPath = value;
    else if (option == "--out")
      outPath = value;
    else
      return usage(err, "unknown option " + option);
  }
  if (!requestPath || !responsePath) return usage(err, "--request and --response are required");
  const std::optional<std::string> request = readAll(*requestPath);
  const std::optional<std::string> response = readAll(*responsePath);
  if (!request) return usage(err, "cannot read " + *requestPath);
  if (!response) return usage(err, "cannot read " + *responsePath);
  const Result<IssuedRequest> issued = IssuedRequest::fromJson(*request);
  const bool authentication = issued && issued->op == "Auth";

  const Report* report = nullptr;
  std::vector<Registration> records;
  RegistrationOutcome registration;
  AuthenticationOutcome authenticated;
  if (authentication) {
    if (!registrationPath) return usage(err, "an authentication needs --registration");
    const std::optional<std::string> text = readAll(*registrationPath);
    if (!text) return usage(err, "cannot read " + *registrationPath);
    std::optional<std::vector<Registration>> known = readRegistrations(*text);
    if (!known) return usage(err, *registrationPath + " is not a registration record");
    verifyAuthentication(*request, *response, *known, trust, authenticated);
    report = &authenticated.report;
    records = authenticated.updated;
  } else {
    const std::optional<std::string> root = readAll(rootPath);
    if (!root) return usage(err, "cannot read the attestation root " + rootPath);
    trust.attestationRootsPem = *root;
    verifyRegistration(*request, *response, trust, registration);
    report = &registration.report;
    records = registration.registrations;
  }
  out << report->text();
  if (!report->ok()) return kVerifyExitFailed;
  if (outPath) {
    std::ofstream file(*outPath, std::ios::binary | std::ios::trunc);
    file << recordsText(records);
    if (!file.flush()) {
      err << "corvane-rp verify: cannot write " << *outPath << "\n";
      return kVerifyExitUsage;
    }
  }
  return kVerifyExitOk;
}

}  // namespace corvane::rp
