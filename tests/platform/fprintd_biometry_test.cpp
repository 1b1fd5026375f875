// The fprintd biometry against the real fprintd daemon and libfprint's virtual reader, on a
// private system bus that the test starts (with python-dbusmock standing in for polkit), and
// through the facade: no finger enrolled, a matching finger, a finger that does not match, and
// the enrolment emptied afterwards. Without fprintd on the bus the platform offers no biometry.
#include "linux/fprintd_biometry.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "corvane/corvane.h"
#include "corvane/linux_platform.h"
#include "fakes/manual_scheduler.h"
#include "fakes/scripted_presenter.h"
#include "test_files.h"
#include "test_support.h"

extern char** environ;

namespace corvane {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;
constexpr const char* kFprintd = "/usr/libexec/fprintd";
constexpr const char* kDevice = "/net/reactivated/Fprint/Device/0";
constexpr const char* kDeviceInterface = "net.reactivated.Fprint.Device";

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// A touch on the virtual reader: one command per connection.
bool scan(const fs::path& socketPath, const std::string& id) {
  for (int tries = 0; tries < 100; ++tries) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof(address.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
      const std::string command = "SCAN " + id;
      const bool sent =
          write(fd, command.data(), command.size()) == static_cast<ssize_t>(command.size());
      close(fd);
      return sent;
    }
    close(fd);
    std::this_thread::sleep_for(20ms);
  }
  return false;
}

// dbus-daemon, the polkit stand-in and fprintd with the virtual reader, stopped in reverse order.
class Daemons {
 public:
  ~Daemons() {
    bus_.reset();
    for (auto pid = pids_.rbegin(); pid != pids_.rend(); ++pid) {
      kill(*pid, SIGTERM);
      int status = 0;
      waitpid(*pid, &status, 0);
    }
  }

  // Empty on success, else what failed.
  std::string start() {
    const fs::path config = dir.path() / "bus.conf";
    testing::writeFile(
        config,
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\""
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\"><busconfig>"
        "<type>system</type><listen>unix:path=" +
            (dir.path() / "bus").string() +
            "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
            "<allow user=\"*\"/><allow own=\"*\"/><allow send_destination=\"*\"/>"
            "<allow receive_sender=\"*\"/></policy></busconfig>");
    if (!spawnLogged({"dbus-daemon", "--config-file=" + config.string(), "--nofork"}, {},
                     "bus.log")) {
      return "cannot start dbus-daemon";
    }
    address_ = "unix:path=" + (dir.path() / "bus").string();
    env_ = std::make_unique<ScopedEnv>("DBUS_SYSTEM_BUS_ADDRESS", address_);
    if (!waitFor([this] { return connect(); })) return "the private bus does not answer";

    const std::string python = fs::exists("/usr/bin/python3") ? "/usr/bin/python3" : "python3";
    if (!spawnLogged({python, "-m", "dbusmock", "--system", "--template", "polkitd"}, {},
                     "polkit.log")) {
      return "cannot start python3 -m dbusmock";
    }
    if (!waitFor([this] {
          return sd_bus_call_method(bus_.get(), "org.freedesktop.PolicyKit1",
                                    "/org/freedesktop/PolicyKit1/Authority",
                                    "org.freedesktop.DBus.Mock", "AllowUnknown", nullptr, nullptr,
                                    "b", 1) >= 0;
        })) {
      return "the polkit stand-in does not answer (python3-dbusmock installed?)";
    }

    fs::create_directories(dir.path() / "state");
    fs::create_directories(dir.path() / "run");
    if (!spawnLogged(
            {kFprintd, "--no-timeout"},
            {"FP_VIRTUAL_DEVICE=" + reader().string(), "FP_DRIVERS_WHITELIST=virtual_device",
             "STATE_DIRECTORY=" + (dir.path() / "state").string(),
             "RUNTIME_DIRECTORY=" + (dir.path() / "run").string()},
            "fprintd.log")) {
      return "cannot start fprintd";
    }
    if (!waitFor([this] {
          return sd_bus_call_method(
                     bus_.get(), "net.reactivated.Fprint", "/net/reactivated/Fprint/Manager",
                     "net.reactivated.Fprint.Manager", "GetDevices", nullptr, nullptr, "") >= 0;
        })) {
      return "fprintd does not answer";
    }
    return "";
  }

  fs::path reader() const { return dir.path() / "virtual-reader"; }

  // Enrols the right index finger from touches of `id`, as fprintd-enroll would.
  bool enroll(const std::string& id) {
    if (!method("Claim", "")) return false;
    struct Status {
      int seen = 0;
      bool done = false;
      std::string result;
    } status;
    sd_bus_slot* slot = nullptr;
    const auto onStatus = [](sd_bus_message* message, void* data, sd_bus_error*) -> int {
      auto* s = static_cast<Status*>(data);
      const char* result = nullptr;
      int done = 0;
      if (sd_bus_message_read(message, "sb", &result, &done) >= 0) {
        ++s->seen;
        s->done = done != 0;
        s->result = result;
      }
      return 0;
    };
    bool enrolled = false;
    if (sd_bus_match_signal(bus_.get(), &slot, "net.reactivated.Fprint", kDevice, kDeviceInterface,
                            "EnrollStatus", onStatus, &status) >= 0 &&
        method("EnrollStart", "right-index-finger")) {
      // One touch per stage, each after the previous one was taken.
      for (int stage = 0; stage < 20 && !status.done; ++stage) {
        const int before = status.seen;
        if (!scan(reader(), id)) break;
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (status.seen == before && std::chrono::steady_clock::now() < deadline) {
          if (sd_bus_process(bus_.get(), nullptr) == 0) sd_bus_wait(bus_.get(), 100'000);
        }
      }
      enrolled = status.result == "enroll-completed";
      method("EnrollStop", nullptr);
    }
    sd_bus_slot_unref(slot);
    method("Release", nullptr);
    return enrolled;
  }

  bool deleteFingers() {
    if (!method("Claim", "")) return false;
    const bool deleted = method("DeleteEnrolledFingers2", nullptr);
    method("Release", nullptr);
    return deleted;
  }

  testing::TempDir dir;

 private:
  bool connect() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) return false;
    bus_.reset(bus);
    return true;
  }
  template <typename Ready>
  static bool waitFor(Ready ready) {
    for (int tries = 0; tries < 200; ++tries) {
      if (ready()) return true;
      std::this_thread::sleep_for(50ms);
    }
    return false;
  }
  bool method(const char* member, const char* argument) {
    return argument != nullptr
               ? sd_bus_call_method(bus_.get(), "net.reactivated.Fprint", kDevice, kDeviceInterface,
                                    member, nullptr, nullptr, "s", argument) >= 0
               : sd_bus_call_method(bus_.get(), "net.reactivated.Fprint", kDevice, kDeviceInterface,
                                    member, nullptr, nullptr, "") >= 0;
  }
  bool spawnLogged(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv,
                   const char* logName) {
    std::vector<std::string> environment = extraEnv;
    for (char** e = environ; *e != nullptr; ++e) environment.emplace_back(*e);
    std::vector<char*> argv;
    std::vector<char*> envp;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    for (const std::string& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    const std::string log = (dir.path() / logName).string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = 0;
    const int r = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (r != 0) return false;
    pids_.push_back(pid);
    return true;
  }

  struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  };
  std::vector<pid_t> pids_;
  std::string address_;
  std::unique_ptr<ScopedEnv> env_;
  std::unique_ptr<sd_bus, BusDeleter> bus_;
};

// "<code> <message>", for readable failures.
std::string described(const Error& error) {
  return std::to_string(error.code()) + " " + error.localizedDescription();
}

struct Recorder final : AuthUIControllerDelegate {
  std::vector<Error> errors;
  void onRegistrationComplete(std::optional<std::string>, const Error& error) override {
    errors.push_back(error);
  }
  void onAuthenticationComplete(std::optional<std::string>, const Error& error) override {
    errors.push_back(error);
  }
};

// A host on the default Linux platform with fprintd; `onPrompt` sees each scan start.
class Host {
 public:
  explicit Host(std::function<void(std::string_view)> onPrompt) {
    testing::writeFile(dir.path() / "Host.app" / "Info.plist",
                       R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
                       "<key>CFBundleIdentifier</key><string>com.example.host</string>"
                       "</dict></plist>");
    linux_platform::LinuxPlatformOptions options;
    options.hostBundleDirectory = dir.path() / "Host.app";
    options.dataDirectory = dir.path() / "data";
    options.frameworkBundleDirectory = testing::resourcesDir();
    options.durableWrites = false;
    options.biometry = linux_platform::LinuxBiometry::fprintd;
    options.biometryPrompt = std::move(onPrompt);
    options.screenPresenter = std::make_shared<testing::ScriptedPresenter>();
    Error error;
    std::optional<Platform> platform = linux_platform::makePlatform(options, &error);
    EXPECT_TRUE(platform) << error.localizedDescription();
    platform->scheduler = scheduler;
    corvane = Corvane::create(recorder, std::move(*platform), &error);
    EXPECT_TRUE(corvane) << error.localizedDescription();
  }
  size_t discovered() {
    Error error;
    return json::parse(corvane->discover(&error).value_or("{}"))["availableAuthenticators"].size();
  }
  static std::string request(std::string_view op) {
    json message = {
        {"header", {{"upv", {{"major", 1}, {"minor", 1}}}, {"op", op}, {"serverData", "sd"}}},
        {"challenge", "Y2hhbGxlbmdl"},
        {"policy", {{"accepted", json::array({json::array({{{"aaid", {"0F3D#0002"}}}})})}}}};
    if (op == "Reg") message["username"] = "alice";
    return json::array({message}).dump();
  }
  Error registration() {
    corvane->doRegistration(DoRegReq{request("Reg"), "biometry", "Alice", {}});
    scheduler->drain();
    return recorder->errors.empty() ? Error::corvane(-1, "no answer") : recorder->errors.back();
  }
  Error authentication() {
    const size_t before = recorder->errors.size();
    corvane->doAuthentication(DoAuthReq{request("Auth"), "alice", {}, "Alice"});
    scheduler->drain();
    return recorder->errors.size() == before ? Error::corvane(-1, "no answer")
                                             : recorder->errors.back();
  }

  testing::TempDir dir;
  std::shared_ptr<testing::ManualScheduler> scheduler =
      std::make_shared<testing::ManualScheduler>();
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::unique_ptr<Corvane> corvane;
};

TEST(FprintdBiometryTest, WithoutFprintdNothingIsSupported) {
  testing::TempDir dir;
  ScopedEnv bus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + (dir.path() / "no-bus").string());
  linux_platform::FprintdBiometry port(
      std::make_shared<linux_platform::StoreKey>(SecretBytes(Bytes(32, 7))), {});
  EXPECT_EQ(port.availability(), BiometryAvailability::notAvailable);
  EXPECT_EQ(port.biometryType(), BiometryType::none);
  EXPECT_FALSE(port.enrolmentState());
  Host host(nullptr);
  EXPECT_EQ(host.discovered(), 1u);
}

TEST(FprintdBiometryTest, RealDaemonWithTheVirtualReader) {
  if (!fs::exists(kFprintd)) {
    GTEST_SKIP() << kFprintd << " is absent: install fprintd, libfprint-2-2, python3-dbusmock and "
                 << "dbus to run this test";
  }
  Daemons daemons;
  const std::string failed = daemons.start();
  ASSERT_EQ(failed, "") << "see the logs in " << daemons.dir.path();

  std::string touch = "finger-1";
  std::vector<std::string> prompts;
  // The scan starts when the port announces its prompt: touch the reader then.
  const auto onPrompt = [&](std::string_view prompt) {
    prompts.emplace_back(prompt);
    EXPECT_TRUE(scan(daemons.reader(), touch));
  };
  Host host(onPrompt);

  // A reader without an enrolled finger: offered, but not usable.
  EXPECT_EQ(host.discovered(), 1u);
  EXPECT_EQ(described(host.registration()),
            "40003 "
            "user not enrolled face id");
  EXPECT_TRUE(prompts.empty());

  ASSERT_TRUE(daemons.enroll("finger-1"));
  EXPECT_EQ(host.discovered(), 2u);
  EXPECT_EQ(host.registration().code(), 0);
  EXPECT_EQ(host.authentication().code(), 0);
  EXPECT_EQ(prompts, (std::vector<std::string>{"Verify your identity to turn on biometric sign-in.",
                                               "Verify your identity to sign in."}));
  touch = "finger-2";
  EXPECT_EQ(described(host.authentication()),
            "20000 "
            "Unable find item to keychain with status : -25293");
  touch = "finger-1";
  EXPECT_EQ(host.authentication().code(), 0);

  // An item bound to the current enrolment stops opening once the finger is gone, without a scan.
  linux_platform::FprintdBiometry port(
      std::make_shared<linux_platform::StoreKey>(SecretBytes(Bytes(32, 7))), {});
  std::vector<uint8_t> form;
  ASSERT_EQ(
      port.protectItem(SecretBytes::fromText("v"), BiometryBinding::currentEnrolmentSet, &form),
      BiometryStatus::ok);
  const std::optional<std::vector<uint8_t>> token = port.enrolmentState();
  ASSERT_TRUE(token);
  ASSERT_TRUE(daemons.deleteFingers());
  EXPECT_EQ(port.availability(), BiometryAvailability::notEnrolled);
  EXPECT_FALSE(port.enrolmentState());
  const size_t shown = prompts.size();
  EXPECT_EQ(port.readProtectedItem(form, "p", nullptr), BiometryStatus::notFound);
  EXPECT_EQ(prompts.size(), shown);
  EXPECT_EQ(described(host.authentication()),
            "40003 "
            "user not enrolled face id");
}

}  // namespace
}  // namespace corvane
