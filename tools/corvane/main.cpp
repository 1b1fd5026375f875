// corvane: the host command-line tool. A thin host application over the public API: it builds the
// Linux platform, asks the library one thing, runs the main queue until the answer arrives and
// prints it. On code 0 the answer goes to standard output and the exit status is 0; otherwise
// nothing goes to standard output, one JSON line {"code","name","message"} goes to standard error
// and the exit status is 1.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "corvane/corvane.h"
#include "corvane/linux_event_loop.h"
#include "corvane/linux_platform.h"
#include "corvane/linux_terminal_presenter.h"
#include "corvane/status_codes.h"
#include "corvane/sync.h"

namespace {

namespace fs = std::filesystem;
using corvane::Error;
using nlohmann::json;

constexpr std::chrono::minutes kAnswerTimeout{5};
constexpr int64_t kUnknown = 10000;
constexpr int64_t kMissingField = 60000;
constexpr int64_t kInvalidArgument = 60001;

const char kUsage[] =
    "usage: corvane [--home DIR] [--bundle DIR] [--ca-file FILE] [--biometry fprintd|none]\n"
    "               [--pattern DOTS] [--confirm | --cancel] COMMAND [options]\n"
    "commands:\n"
    "  discover\n"
    "  supported --request FILE\n"
    "  register --request FILE --user-verification pattern|biometry --display-name NAME\n"
    "           [--exts-data JSON]\n"
    "  authenticate --request FILE --username NAME [--display-name NAME] [--exts-data JSON]\n"
    "  deregister --request FILE | --username NAME |\n"
    "             --aaid AAID --key-id KEYID --app-id APPID --username NAME\n"
    "  sync --username NAME (--tables FILE | --data1 TEXT --data2 TEXT)\n"
    "  facet-id\n"
    "  status-name CODE\n"
    "FILE - is standard input. --pattern 0,1,2,5,8,7 answers every pattern screen, --confirm or\n"
    "--cancel the transaction screen; without them the screens are drawn on the terminal.\n";

int fail(const Error& error) {
  const json line = {
      {"code", error.code()},
      {"name", std::string(corvane::CorvaneStatusCodeTranslator::convertToString(error.code()))},
      {"message", error.localizedDescription()}};
  std::cerr << line.dump(-1, ' ', false, json::error_handler_t::replace) << "\n";
  return 1;
}

int fail(int64_t code, std::string message) {
  return fail(Error::corvane(code, std::move(message)));
}

int succeed(const std::string& text) {
  std::cout << text << "\n";
  return 0;
}

std::optional<std::string> readInput(const std::string& name) {
  if (name == "-") {
    return std::string(std::istreambuf_iterator<char>(std::cin), {});
  }
  std::ifstream in(name, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Options after the command: "--name value" pairs.
struct Options {
  std::map<std::string, std::string> values;
  std::optional<std::string> get(const std::string& name) const {
    auto it = values.find(name);
    return it == values.end() ? std::nullopt : std::optional<std::string>(it->second);
  }
};

// Answers every pattern screen with one pattern and the transaction screen with one choice, for
// scripts. A screen it has no answer for is cancelled.
class ScriptedPresenter final : public corvane::ScreenPresenter {
 public:
  ScriptedPresenter(corvane::Scheduler& scheduler, std::vector<uint32_t> dots,
                    std::optional<bool> confirm)
      : scheduler_(scheduler), dots_(std::move(dots)), confirm_(confirm) {}

  Handle present(corvane::PatternScreen& screen) override {
    const Handle handle = next_++;
    shown_[handle] = &screen;
    scheduler_.post([this, handle] { answerPattern(handle); });
    return handle;
  }
  Handle present(corvane::TransactionScreen& screen) override {
    const Handle handle = next_++;
    scheduler_.post([this, handle, &screen] {
      if (shownTx_.count(handle) == 0) return;
      if (confirm_.value_or(false)) {
        screen.pressConfirm();
      } else {
        screen.pressCancel();
      }
    });
    shownTx_.insert(handle);
    return handle;
  }
  void changed(Handle) override {}
  void dismiss(Handle handle) override {
    shown_.erase(handle);
    shownTx_.erase(handle);
  }

 private:
  void answerPattern(Handle handle) {
    auto it = shown_.find(handle);
    if (it == shown_.end()) return;
    corvane::PatternScreen& screen = *it->second;
    if (screen.alert()) {
      // An invalid new pattern: a script cannot draw another, so it gives up.
      screen.dismissAlert();
      screen.pressButton();
      return;
    }
    if (dots_.empty() || !screen.buttonEnabled()) {
      if (dots_.empty()) screen.pressButton();
      return;
    }
    screen.layout(300);
    const std::vector<corvane::Point> centres = screen.dotCentres();
    for (uint32_t dot : dots_) {
      if (dot >= centres.size()) {
        screen.pressButton();
        return;
      }
    }
    using Phase = corvane::PatternScreen::TouchPhase;
    screen.touch(Phase::began, centres[dots_.front()]);
    for (size_t i = 1; i < dots_.size() && shown_.count(handle) != 0; ++i) {
      const corvane::Point from = centres[dots_[i - 1]];
      const corvane::Point to = centres[dots_[i]];
      screen.touch(Phase::moved, {(from.x + to.x) / 2 + 3, (from.y + to.y) / 2 + 3});
      screen.touch(Phase::moved, to);
    }
    if (shown_.count(handle) == 0) return;
    screen.touch(Phase::ended, centres[dots_.back()]);
    // The set-pattern screen asks for the pattern twice.
    if (shown_.count(handle) != 0) scheduler_.post([this, handle] { answerPattern(handle); });
  }

  corvane::Scheduler& scheduler_;
  std::vector<uint32_t> dots_;
  std::optional<bool> confirm_;
  Handle next_ = 1;
  std::map<Handle, corvane::PatternScreen*> shown_;
  std::set<Handle> shownTx_;
};

// Where results of registration and authentication land.
class Results final : public corvane::AuthUIControllerDelegate {
 public:
  void onRegistrationComplete(std::optional<std::string> response, const Error& error) override {
    done(std::move(response), error);
  }
  void onAuthenticationComplete(std::optional<std::string> response, const Error& error) override {
    done(std::move(response), error);
  }
  bool answered = false;
  std::optional<std::string> response;
  Error error;

 private:
  void done(std::optional<std::string> text, const Error& result) {
    answered = true;
    response = std::move(text);
    error = result;
  }
};

std::optional<std::vector<uint32_t>> parseDots(const std::string& text) {
  std::vector<uint32_t> dots;
  std::stringstream stream(text);
  std::string item;
  while (std::getline(stream, item, ',')) {
    if (item.empty() || item.size() > 2 ||
        item.find_first_not_of("0123456789") != std::string::npos) {
      return std::nullopt;
    }
    dots.push_back(static_cast<uint32_t>(std::stoul(item)));
  }
  if (dots.empty()) return std::nullopt;
  return dots;
}

fs::path firstExisting(const char* installed, const char* source) {
  std::error_code ignored;
  return fs::exists(installed, ignored) ? fs::path(installed) : fs::path(source);
}

std::optional<std::map<std::string, std::string, std::less<>>> parseExtsData(
    const std::optional<std::string>& text) {
  std::map<std::string, std::string, std::less<>> data;
  if (!text) return data;
  const json parsed = json::parse(*text, nullptr, false);
  if (!parsed.is_object()) return std::nullopt;
  for (const auto& [id, value] : parsed.items()) {
    if (!value.is_string()) return std::nullopt;
    data[id] = value.get<std::string>();
  }
  return data;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::optional<std::string> home, bundle, caFile, pattern;
  corvane::linux_platform::LinuxBiometry biometry = corvane::linux_platform::LinuxBiometry::none;
  std::optional<bool> confirm;
  size_t at = 0;
  for (; at < args.size() && args[at].rfind("--", 0) == 0; ++at) {
    const std::string& flag = args[at];
    if (flag == "--confirm" || flag == "--cancel") {
      confirm = flag == "--confirm";
      continue;
    }
    if (flag == "--help") {
      std::cout << kUsage;
      return 0;
    }
    if (at + 1 >= args.size()) return fail(kInvalidArgument, flag + " needs a value");
    const std::string& value = args[++at];
    if (flag == "--home") {
      home = value;
    } else if (flag == "--bundle") {
      bundle = value;
    } else if (flag == "--ca-file") {
      caFile = value;
    } else if (flag == "--pattern") {
      pattern = value;
    } else if (flag == "--biometry") {
      if (value != "fprintd" && value != "none") {
        return fail(kInvalidArgument, "--biometry takes fprintd or none");
      }
      biometry = value == "fprintd" ? corvane::linux_platform::LinuxBiometry::fprintd
                                    : corvane::linux_platform::LinuxBiometry::none;
    } else {
      return fail(kInvalidArgument, "unknown option " + flag);
    }
  }
  if (at >= args.size()) {
    std::cerr << kUsage;
    return fail(kInvalidArgument, "no command");
  }
  const std::string command = args[at++];
  if (command == "status-name") {
    char* end = nullptr;
    const long long value = at + 1 == args.size() ? std::strtoll(args[at].c_str(), &end, 10) : 0;
    const std::string_view name = end != nullptr && *end == '\0' && !args[at].empty()
                                      ? corvane::CorvaneStatusCodeTranslator::convertToString(value)
                                      : std::string_view();
    if (name.empty()) return fail(kInvalidArgument, "status-name takes one status code");
    return succeed(std::string(name));
  }
  Options options;
  for (; at < args.size(); at += 2) {
    if (args[at].rfind("--", 0) != 0 || at + 1 >= args.size()) {
      return fail(kInvalidArgument, "unexpected argument " + args[at]);
    }
    options.values[args[at].substr(2)] = args[at + 1];
  }

  std::optional<std::vector<uint32_t>> dots;
  if (pattern) {
    dots = parseDots(*pattern);
    if (!dots) return fail(kInvalidArgument, "--pattern takes dot numbers such as 0,1,2,5,8,7");
  }

  Error error;
  std::unique_ptr<corvane::linux_platform::EventLoop> loop =
      corvane::linux_platform::EventLoop::create(&error);
  if (!loop) return fail(error);
  std::shared_ptr<corvane::Scheduler> scheduler(loop.get(), [](corvane::Scheduler*) {});

  // Screens: scripted answers, else the terminal, else none to show (cancelled).
  std::FILE* tty = nullptr;
  std::shared_ptr<corvane::ScreenPresenter> presenter;
  if (dots || confirm) {
    presenter = std::make_shared<ScriptedPresenter>(
        *scheduler, dots.value_or(std::vector<uint32_t>{}), confirm);
  } else if ((tty = std::fopen("/dev/tty", "r+")) != nullptr) {
    presenter = std::make_shared<corvane::linux_platform::TerminalPresenter>(
        *scheduler, tty, tty, std::getenv("NO_COLOR") == nullptr);
  } else {
    presenter = std::make_shared<ScriptedPresenter>(*scheduler, std::vector<uint32_t>{}, false);
  }

  corvane::linux_platform::LinuxPlatformOptions platformOptions;
  platformOptions.hostBundleDirectory =
      bundle ? fs::path(*bundle)
             : firstExisting(CORVANE_DEMO_BUNDLE_INSTALLED, CORVANE_DEMO_BUNDLE_SOURCE);
  platformOptions.frameworkBundleDirectory =
      firstExisting(corvane::linux_platform::defaultFrameworkBundleDirectory().c_str(),
                    CORVANE_FRAMEWORK_BUNDLE_SOURCE);
  if (home) platformOptions.dataDirectory = fs::path(*home);
  if (caFile) platformOptions.extraCaFile = fs::path(*caFile);
  platformOptions.screenPresenter = presenter;
  platformOptions.biometry = biometry;
  // fprintd shows nothing itself: the prompt goes to the terminal (or standard error).
  platformOptions.biometryPrompt = [tty](std::string_view prompt) {
    std::FILE* out = tty != nullptr ? tty : stderr;
    std::fprintf(out, "%.*s (touch the fingerprint reader)\n", static_cast<int>(prompt.size()),
                 prompt.data());
    std::fflush(out);
  };
  std::optional<corvane::Platform> platform =
      corvane::linux_platform::makePlatform(platformOptions, &error);
  if (!platform) return fail(error);
  // The tool runs the main queue itself, on its own loop.
  platform->scheduler = scheduler;

  auto results = std::make_shared<Results>();
  std::unique_ptr<corvane::Corvane> client =
      corvane::Corvane::create(results, std::move(*platform), &error);
  if (!client) return fail(error);

  const auto requestText = [&]() -> std::optional<std::string> {
    std::optional<std::string> file = options.get("request");
    return file ? readInput(*file) : std::nullopt;
  };
  const auto awaitAnswer = [&]() -> int {
    if (!loop->runUntil([&] { return results->answered; }, kAnswerTimeout)) {
      return fail(30001, "no answer within 5 minutes.");
    }
    if (results->error.code() != 0) return fail(results->error);
    return succeed(results->response.value_or(""));
  };

  int status = 0;
  if (command == "discover") {
    std::optional<std::string> data = client->discover(&error);
    status = data ? succeed(*data) : fail(error);
  } else if (command == "facet-id") {
    status = succeed(client->facetID());
  } else if (command == "supported") {
    std::optional<std::string> request = requestText();
    if (!request) return fail(kMissingField, "Missing Required Fields: request ");
    std::optional<corvane::GetSupportedAuthenticatorResponse> supported =
        client->getSupportedAuthenticator(*request, &error);
    if (!supported) return fail(error);
    json out = {{"userVerifications", supported->userVerifications}, {"status", supported->status}};
    if (supported->aaid) out["aaid"] = *supported->aaid;
    if (supported->keyID) out["keyID"] = *supported->keyID;
    status = succeed(out.dump());
  } else if (command == "register") {
    std::optional<std::string> request = requestText();
    std::optional<std::map<std::string, std::string, std::less<>>> extsData =
        parseExtsData(options.get("exts-data"));
    if (!request) return fail(kMissingField, "Missing Required Fields: request ");
    if (!extsData) return fail(kInvalidArgument, "--exts-data takes a JSON object of strings");
    client->doRegistration(corvane::DoRegReq{*request,
                                             options.get("user-verification").value_or(""),
                                             options.get("display-name").value_or(""), *extsData});
    status = awaitAnswer();
  } else if (command == "authenticate") {
    std::optional<std::string> request = requestText();
    std::optional<std::map<std::string, std::string, std::less<>>> extsData =
        parseExtsData(options.get("exts-data"));
    if (!request) return fail(kMissingField, "Missing Required Fields: request ");
    if (!extsData) return fail(kInvalidArgument, "--exts-data takes a JSON object of strings");
    client->doAuthentication(corvane::DoAuthReq{*request, options.get("username").value_or(""),
                                                *extsData,
                                                options.get("display-name").value_or("")});
    status = awaitAnswer();
  } else if (command == "sync") {
    corvane::RegData1 tables;
    if (std::optional<std::string> file = options.get("tables")) {
      std::optional<std::string> text = readInput(*file);
      const json bundle = text ? json::parse(*text, nullptr, false) : json();
      if (!bundle.is_object()) return fail(kInvalidArgument, "--tables takes a JSON object file");
      for (const auto& [half, member] :
           {std::pair{&tables.data1, "data1"}, std::pair{&tables.data2, "data2"}}) {
        auto it = bundle.find(member);
        if (it != bundle.end() && it->is_string()) *half = it->get<std::string>();
      }
    } else {
      tables.data1 = options.get("data1");
      tables.data2 = options.get("data2");
    }
    const bool stored =
        client->syncRegData(corvane::SyncRegDataRequest{options.get("username"), tables}, &error);
    status = stored ? 0 : fail(error);
  } else if (command == "deregister") {
    bool removed = false;
    if (options.get("request")) {
      std::optional<std::string> request = requestText();
      if (!request) return fail(kMissingField, "Missing Required Fields: request ");
      removed = client->doDeregistrationReq(*request, &error);
    } else if (options.get("aaid") || options.get("key-id") || options.get("app-id")) {
      const std::optional<std::string> aaid = options.get("aaid");
      removed = client->doDeregistrationWithAaid(
          aaid ? std::optional<std::string_view>(*aaid) : std::nullopt,
          options.get("key-id").value_or(""), options.get("app-id").value_or(""),
          options.get("username").value_or(""), &error);
    } else {
      removed = client->doDeregistrationUsername(options.get("username").value_or(""), &error);
    }
    status = removed && error.code() == 0 ? 0 : fail(error);
  } else {
    status = fail(kUnknown, "unknown command " + command);
  }
  client.reset();
  if (tty != nullptr) std::fclose(tty);
  return status;
}
