#include "linux/fprintd_biometry.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "crypto/sealed_box.h"
#include "foundation/utils.h"

namespace corvane::linux_platform {

namespace {

constexpr const char* kService = "net.reactivated.Fprint";
constexpr const char* kManagerPath = "/net/reactivated/Fprint/Manager";
constexpr const char* kManagerInterface = "net.reactivated.Fprint.Manager";
constexpr const char* kDeviceInterface = "net.reactivated.Fprint.Device";
constexpr const char* kNoEnrolledPrints = "net.reactivated.Fprint.Error.NoEnrolledPrints";
constexpr const char* kNoSuchDevice = "net.reactivated.Fprint.Error.NoSuchDevice";
// The enrolled prints of the user this process runs as.
constexpr const char* kCallingUser = "";

// Associated data of a protected form: a form sealed for anything else does not open here.
constexpr std::string_view kFormContext = "corvane.fprintd.protected-item.v1";
constexpr uint8_t kFormVersion = 1;
constexpr size_t kTokenSize = 32;
constexpr size_t kHeaderSize = 2 + kTokenSize;
constexpr size_t kMaxValueSize = 64 * 1024;

struct BusDeleter {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageDeleter {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct SlotDeleter {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;
using Message = std::unique_ptr<sd_bus_message, MessageDeleter>;
using Slot = std::unique_ptr<sd_bus_slot, SlotDeleter>;

class BusError {
 public:
  BusError() = default;
  ~BusError() { sd_bus_error_free(&error_); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  sd_bus_error* get() { return &error_; }
  bool is(const char* name) const { return sd_bus_error_has_name(&error_, name) != 0; }
  void clear() { sd_bus_error_free(&error_); }

 private:
  sd_bus_error error_{nullptr, nullptr, 0};
};

Bus openSystemBus() {
  sd_bus* bus = nullptr;
  if (sd_bus_open_system(&bus) < 0) return nullptr;
  return Bus(bus);
}

// Calls a method without arguments or with one string argument; the reply, or null with `error`.
Message call(sd_bus* bus, const char* path, const char* interface, const char* member,
             BusError& error, const char* argument = nullptr) {
  sd_bus_message* reply = nullptr;
  const int r = argument != nullptr ? sd_bus_call_method(bus, kService, path, interface, member,
                                                         error.get(), &reply, "s", argument)
                                    : sd_bus_call_method(bus, kService, path, interface, member,
                                                         error.get(), &reply, "");
  if (r < 0) return nullptr;
  return Message(reply);
}

std::optional<std::vector<std::string>> readStrings(sd_bus_message* reply) {
  char** strv = nullptr;
  if (sd_bus_message_read_strv(reply, &strv) < 0) return std::nullopt;
  std::vector<std::string> out;
  for (char** s = strv; s != nullptr && *s != nullptr; ++s) {
    out.emplace_back(*s);
    std::free(*s);  // NOLINT(cppcoreguidelines-no-malloc): sd-bus allocates with malloc
  }
  std::free(strv);  // NOLINT(cppcoreguidelines-no-malloc)
  return out;
}

// What fprintd says about the first reader.
struct Reader {
  std::string path;
  BiometryAvailability availability = BiometryAvailability::notAvailable;
  std::vector<std::string> fingers;  // sorted
  std::string name;
};

// Absent when fprintd cannot be reached or lists no reader.
std::optional<Reader> firstReader(sd_bus* bus) {
  BusError error;
  Message devices = call(bus, kManagerPath, kManagerInterface, "GetDevices", error);
  if (!devices) return std::nullopt;
  std::optional<std::vector<std::string>> paths = readStrings(devices.get());
  if (!paths || paths->empty()) return std::nullopt;
  Reader reader;
  reader.path = paths->front();
  Message fingers =
      call(bus, reader.path.c_str(), kDeviceInterface, "ListEnrolledFingers", error, kCallingUser);
  if (!fingers) {
    reader.availability = error.is(kNoEnrolledPrints) ? BiometryAvailability::notEnrolled
                          : error.is(kNoSuchDevice)   ? BiometryAvailability::notAvailable
                                                      : BiometryAvailability::other;
  } else if (std::optional<std::vector<std::string>> names = readStrings(fingers.get())) {
    reader.fingers = std::move(*names);
    std::sort(reader.fingers.begin(), reader.fingers.end());
    reader.availability = reader.fingers.empty() ? BiometryAvailability::notEnrolled
                                                 : BiometryAvailability::available;
  } else {
    reader.availability = BiometryAvailability::other;
  }
  // The property names carry dashes, which sd-bus's property helpers refuse: ask Properties.Get.
  error.clear();
  sd_bus_message* reply = nullptr;
  if (sd_bus_call_method(bus, kService, reader.path.c_str(), "org.freedesktop.DBus.Properties",
                         "Get", error.get(), &reply, "ss", kDeviceInterface, "name") >= 0) {
    Message owned(reply);
    const char* name = nullptr;
    if (sd_bus_message_read(owned.get(), "v", "s", &name) >= 0 && name != nullptr) {
      reader.name = name;
    }
  }
  return reader;
}

std::optional<std::vector<uint8_t>> tokenOf(const Reader& reader) {
  if (reader.fingers.empty()) return std::nullopt;
  std::string text = reader.name;
  for (const std::string& finger : reader.fingers) text.append("\n").append(finger);
  const std::array<uint8_t, 32> digest = Utils::sha256BackData(text);
  return std::vector<uint8_t>(digest.begin(), digest.end());
}

// One verification on a claimed reader.
struct Verification {
  bool done = false;
  std::string result;
};

int onVerifyStatus(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  auto* verification = static_cast<Verification*>(userdata);
  const char* result = nullptr;
  int done = 0;
  if (sd_bus_message_read(message, "sb", &result, &done) < 0) return 0;
  if (done != 0) {
    verification->done = true;
    verification->result = result != nullptr ? result : "";
  }
  return 0;
}

BiometryStatus statusOf(std::string_view result) {
  if (result == "verify-match") return BiometryStatus::ok;
  if (result == "verify-no-match") return BiometryStatus::authenticationFailed;
  if (result == "verify-disconnected") return BiometryStatus::notAvailable;
  return BiometryStatus::failure;
}

// Waits for the end of a started verification; absent when the time-out passes or the bus fails.
std::optional<std::string> awaitResult(sd_bus* bus, Verification& verification,
                                       std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!verification.done) {
    const int processed = sd_bus_process(bus, nullptr);
    if (processed < 0) return std::nullopt;
    if (processed > 0) continue;
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    if (sd_bus_wait(bus, static_cast<uint64_t>(left.count())) < 0) return std::nullopt;
  }
  return verification.result;
}

}  // namespace

FprintdBiometry::FprintdBiometry(std::shared_ptr<const StoreKey> storeKey, Options options)
    : storeKey_(std::move(storeKey)), options_(std::move(options)) {}

BiometryAvailability FprintdBiometry::availability() const {
  Bus bus = openSystemBus();
  if (!bus) return BiometryAvailability::notAvailable;
  std::optional<Reader> reader = firstReader(bus.get());
  return reader ? reader->availability : BiometryAvailability::notAvailable;
}

BiometryType FprintdBiometry::biometryType() const {
  Bus bus = openSystemBus();
  if (!bus) return BiometryType::none;
  return firstReader(bus.get()) ? BiometryType::fingerprint : BiometryType::none;
}

std::optional<std::vector<uint8_t>> FprintdBiometry::enrolmentState() const {
  Bus bus = openSystemBus();
  if (!bus) return std::nullopt;
  std::optional<Reader> reader = firstReader(bus.get());
  if (!reader) return std::nullopt;
  return tokenOf(*reader);
}

BiometryStatus FprintdBiometry::protectItem(const SecretBytes& value, BiometryBinding binding,
                                            std::vector<uint8_t>* protectedForm) {
  if (!storeKey_ || value.size() > kMaxValueSize) return BiometryStatus::failure;
  // version, binding, token (zeros when any enrolment will do), value
  SecretBytes plain(kHeaderSize + value.size());
  uint8_t* out = plain.mutableSecret().data();
  out[0] = kFormVersion;
  out[1] = static_cast<uint8_t>(binding);
  if (binding == BiometryBinding::currentEnrolmentSet) {
    std::optional<std::vector<uint8_t>> token = enrolmentState();
    if (!token || token->size() != kTokenSize) return BiometryStatus::notAvailable;
    std::copy(token->begin(), token->end(), out + 2);
  }
  std::copy(value.exposeSecret().begin(), value.exposeSecret().end(), out + kHeaderSize);
  std::optional<Bytes> sealed =
      sealed_box::seal(storeKey_->bytes(), asBytes(kFormContext), plain.exposeSecret());
  if (!sealed) return BiometryStatus::failure;
  if (protectedForm != nullptr) *protectedForm = std::move(*sealed);
  return BiometryStatus::ok;
}

BiometryStatus FprintdBiometry::readProtectedItem(std::span<const uint8_t> protectedForm,
                                                  std::string_view prompt, SecretBytes* value) {
  if (!storeKey_) return BiometryStatus::failure;
  std::optional<SecretBytes> plain = sealed_box::open(storeKey_->bytes(), asBytes(kFormContext),
                                                      protectedForm, kHeaderSize + kMaxValueSize);
  if (!plain || plain->size() < kHeaderSize || plain->exposeSecret()[0] != kFormVersion) {
    return BiometryStatus::notFound;
  }
  const ByteView form = plain->exposeSecret();
  Bus bus = openSystemBus();
  if (!bus) return BiometryStatus::notAvailable;
  std::optional<Reader> reader = firstReader(bus.get());
  if (form[1] == static_cast<uint8_t>(BiometryBinding::currentEnrolmentSet)) {
    std::optional<std::vector<uint8_t>> token = reader ? tokenOf(*reader) : std::nullopt;
    if (!token || !std::equal(token->begin(), token->end(), form.begin() + 2)) {
      return BiometryStatus::notFound;
    }
  } else if (form[1] != static_cast<uint8_t>(BiometryBinding::anyEnrolment)) {
    return BiometryStatus::notFound;
  }
  if (!reader || reader->availability != BiometryAvailability::available) {
    return BiometryStatus::notAvailable;
  }

  // The claim belongs to this connection: Claim, VerifyStart, VerifyStop and Release all go
  // through it.
  const char* path = reader->path.c_str();
  BusError error;
  if (!call(bus.get(), path, kDeviceInterface, "Claim", error, kCallingUser)) {
    return BiometryStatus::failure;
  }
  BiometryStatus status = BiometryStatus::failure;
  {
    Verification verification;
    sd_bus_slot* rawSlot = nullptr;
    if (sd_bus_match_signal(bus.get(), &rawSlot, kService, path, kDeviceInterface, "VerifyStatus",
                            onVerifyStatus, &verification) >= 0) {
      Slot slot(rawSlot);
      error.clear();
      if (call(bus.get(), path, kDeviceInterface, "VerifyStart", error, "any")) {
        if (options_.onPrompt) options_.onPrompt(prompt);
        if (std::optional<std::string> result =
                awaitResult(bus.get(), verification, options_.scanTimeout)) {
          status = statusOf(*result);
        }
        error.clear();
        static_cast<void>(call(bus.get(), path, kDeviceInterface, "VerifyStop", error));
      } else if (error.is(kNoEnrolledPrints)) {
        status = BiometryStatus::notAvailable;
      }
    }
  }
  error.clear();
  static_cast<void>(call(bus.get(), path, kDeviceInterface, "Release", error));
  if (status == BiometryStatus::ok && value != nullptr) {
    *value = SecretBytes(Bytes(form.begin() + kHeaderSize, form.end()));
  }
  return status;
}

}  // namespace corvane::linux_platform
