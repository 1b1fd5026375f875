// Data sync: the per-user white-box tables the server issues after a registration, checked and
// stored in the record database, and the server's list of registrations to drop.
//
// A sync that fails removes what the device holds for the user (tables and registrations), so
// that device and server cannot drift apart. It never widens that to other users: without a user
// name nothing is removed.
#include <string>
#include <utility>

#include "client/corvane_impl.h"
#include "client/flow_support.h"
#include "client/wb_bundle.h"
#include "foundation/utils.h"

namespace corvane {

namespace {

constexpr std::string_view kMissingPrefix = "Missing Required Fields: ";

Error syncError(CorvaneStatusCode status, std::string text) {
  return Error::corvane(code(status), std::move(text));
}

}  // namespace

bool Corvane::syncRegData(const std::optional<SyncRegDataRequest>& request, Error* error) {
  if (!impl_) {
    setError(error, clientError(CorvaneStatusCode::UNKNOWN, "The platform is incomplete."));
    return false;
  }
  Impl& impl = *impl_;
  const std::optional<std::string> username = request ? request->username : std::nullopt;
  // Removes the user's tables and every registration of the user; nothing without a name.
  const auto fail = [&](const Error& failure) {
    setError(error, failure);
    if (username && !username->empty()) {
      static_cast<void>(impl.records.deleteRecord(kWBTableEntityName,
                                                  RecordPredicate::usernameEquals(*username)));
      AsmRequest deregister;
      deregister.requestType = static_cast<uint64_t>(AsmRequestType::kDeregister);
      deregister.args = DeregisterIn{*username, std::string(), std::string()};
      static_cast<void>(impl.execute(deregister));
    }
    return false;
  };

  std::string missing;
  if (!request) {
    missing += "syncRegDataRequest ";
  } else {
    if (!username || username->empty()) missing += "username ";
    if (!request->regData1) {
      missing += "regData1 ";
    } else {
      const RegData1& data = *request->regData1;
      if (!data.data1 || data.data1->empty()) missing += "data1 ";
      if (!data.data2 || data.data2->empty()) missing += "data2";
    }
  }
  if (!missing.empty()) {
    return fail(
        syncError(CorvaneStatusCode::MISS_REQUIRED_FIELD, std::string(kMissingPrefix) + missing));
  }
  const std::string& data1 = *request->regData1->data1;
  const std::string& data2 = *request->regData1->data2;

  if (data1 == kNoWBDataMarker || data2 == kNoWBDataMarker) {
    // The server has no tables for the user; only the pattern history moves on.
    static_cast<void>(impl.patternManager.updateLastPatternForUsername(*username));
    return true;
  }

  BundleFieldFault fault{};
  Error parseError;
  std::optional<nlohmann::json> tables = decodeBundleField(data1, &fault, &parseError);
  if (!tables) {
    if (fault == BundleFieldFault::json) {
      return fail(syncError(CorvaneStatusCode::UNKNOWN, parseError.localizedDescription()));
    }
    return fail(syncError(CorvaneStatusCode::INVALID_ARGUMENT, "data1 Decompress Error."));
  }
  if (std::string absent = missingTableArrays(*tables); !absent.empty()) {
    return fail(syncError(CorvaneStatusCode::INVALID_ARGUMENT,
                          "Invalid data1 data. Missing Required Fields: " + absent));
  }
  std::optional<nlohmann::json> permutations = decodeBundleField(data2, &fault, &parseError);
  if (!permutations) {
    if (fault == BundleFieldFault::json) {
      return fail(syncError(CorvaneStatusCode::UNKNOWN, parseError.localizedDescription()));
    }
    return fail(syncError(CorvaneStatusCode::INVALID_ARGUMENT, "data2 Decompress Error."));
  }
  if (!hasPermutations(*permutations)) {
    return fail(
        syncError(CorvaneStatusCode::INVALID_ARGUMENT, "Missing Required Fields: permutations"));
  }
  // Tables that could never encipher are refused now rather than at the next authentication.
  UserTablesFault shapeFault{};
  if (!userTablesFrom(*tables, *permutations, &shapeFault)) {
    return fail(syncError(CorvaneStatusCode::INVALID_ARGUMENT,
                          shapeFault == UserTablesFault::tables
                              ? std::string(kInvalidWBTableText)
                              : std::string(kInvalidPermutationsText)));
  }

  WBTable record;
  record.username = *username;
  record.wbTable = SecretBytes::fromText(data1);
  record.permutations = SecretBytes::fromText(data2);
  if (!impl.records.insertRecordWithRecordValues(record, kWBTableEntityName)) {
    return fail(syncError(CorvaneStatusCode::UNKNOWN, "Fail to insert data into CoreData."));
  }
  // A user with a stored pattern starts the pattern history from it.
  const std::string account = Utils::sha256(*username) + "." + std::string(Keychain::kAaid);
  Result<std::optional<SecretBytes>> pattern = impl.keychain.findGenericPasswordWithAccount(
      account, Keychain::kServicePatternLock, std::nullopt);
  if (pattern && *pattern) {
    static_cast<void>(impl.patternManager.updateLastPatternForUsername(*username));
  }
  return true;
}

void Corvane::syncServerData(const SyncServerData& data, Error* error) {
  if (!impl_) {
    setError(error, clientError(CorvaneStatusCode::UNKNOWN, "The platform is incomplete."));
    return;
  }
  if (!data.appID || data.appID->empty()) {
    setError(error,
             syncError(CorvaneStatusCode::MISS_REQUIRED_FIELD, "Missing Required Fields: appID"));
    return;
  }
  for (const SyncAuthenticator& entry : data.authenticators) {
    if (entry.aaid && !entry.aaid->empty() && *entry.aaid != Keychain::kAaid) continue;
    const bool hasUser = entry.username && !entry.username->empty();
    const bool hasKey = entry.keyID && !entry.keyID->empty();
    // An entry naming neither a user nor a key would reach every registration of every
    // application; it is skipped.
    if (!hasUser && !hasKey) continue;
    AsmRequest request;
    request.requestType = static_cast<uint64_t>(AsmRequestType::kDeregister);
    request.args = DeregisterIn{entry.username.value_or(""), *data.appID, entry.keyID.value_or("")};
    const AsmResponse response = impl_->execute(request);
    if (response.statusCode != 0) setError(error, hostError(response.statusCode, std::nullopt));
  }
}

}  // namespace corvane
