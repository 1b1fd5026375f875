// Five-minute integration: register a user and authenticate them against a UAF server, here the
// test relying party corvane-rp. The README shows the whole session:
//
//   corvane-rp serve --state-dir rp --port 8443 --facet-id ios:bundle-id:com.example.quickstart &
//   curl -s --cacert rp/ca.pem 'https://127.0.0.1:8443/uaf/reg/request?username=alice' > reg.json
//   corvane_quickstart reg.json rp/ca.pem data > reg-response.json
//   curl -s --cacert rp/ca.pem --data-binary @reg-response.json
//   https://127.0.0.1:8443/uaf/reg/response
//
// and the same with "auth" and the argument --authenticate alice.
//
// A host gives the library its ports (makePlatform makes the Linux ones), runs the main queue
// (the EventLoop) and hears each result once through its AuthUIControllerDelegate. The screens
// are the host's: a real application draws them; this one answers them like a script, drawing
// the pattern 0,1,2,5,8,7 (the top row, then down the right and back along the bottom) and
// confirming any transaction.
#include <corvane/corvane.h>
#include <corvane/linux_event_loop.h>
#include <corvane/linux_platform.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using namespace corvane;

namespace {

// Draws one fixed pattern on every pattern screen and confirms every transaction.
class ScriptedScreens final : public ScreenPresenter {
 public:
  explicit ScriptedScreens(Scheduler& scheduler) : scheduler_(scheduler) {}

  Handle present(PatternScreen& screen) override {
    const Handle handle = next_++;
    // Act from the main queue, never inside present(): the screen learns its handle first.
    scheduler_.post([this, handle, &screen] { draw(handle, screen); });
    shown_.push_back(handle);
    return handle;
  }
  Handle present(TransactionScreen& screen) override {
    const Handle handle = next_++;
    scheduler_.post([this, handle, &screen] {
      if (isShown(handle)) screen.pressConfirm();
    });
    shown_.push_back(handle);
    return handle;
  }
  void changed(Handle) override {}
  void dismiss(Handle handle) override { std::erase(shown_, handle); }

 private:
  bool isShown(Handle handle) const {
    return std::find(shown_.begin(), shown_.end(), handle) != shown_.end();
  }
  void draw(Handle handle, PatternScreen& screen) {
    if (!isShown(handle)) return;
    screen.layout(300);
    const std::vector<Point> dots = screen.dotCentres();
    const std::vector<int> pattern = {0, 1, 2, 5, 8, 7};
    screen.touch(PatternScreen::TouchPhase::began, dots[0]);
    for (size_t i = 1; i < pattern.size(); ++i) {
      const Point from = dots[pattern[i - 1]];
      const Point to = dots[pattern[i]];
      screen.touch(PatternScreen::TouchPhase::moved,
                   {(from.x + to.x) / 2 + 3, (from.y + to.y) / 2 + 3});
      screen.touch(PatternScreen::TouchPhase::moved, to);
    }
    screen.touch(PatternScreen::TouchPhase::ended, dots[7]);
    // A new pattern is drawn twice.
    scheduler_.post([this, handle, &screen] { draw(handle, screen); });
  }

  Scheduler& scheduler_;
  Handle next_ = 1;
  std::vector<Handle> shown_;
};

// Keeps the one result of the request.
class Results final : public AuthUIControllerDelegate {
 public:
  void onRegistrationComplete(std::optional<std::string> response, const Error& error) override {
    keep(std::move(response), error);
  }
  void onAuthenticationComplete(std::optional<std::string> response, const Error& error) override {
    keep(std::move(response), error);
  }
  bool done = false;
  std::optional<std::string> response;
  Error error;

 private:
  void keep(std::optional<std::string> text, const Error& result) {
    done = true;
    response = std::move(text);
    error = result;
  }
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::optional<std::string> user;
  if (args.size() == 5 && args[0] == "--authenticate") {
    user = args[1];
    args.erase(args.begin(), args.begin() + 2);
  }
  if (args.size() != 3) {
    std::cerr << "usage: corvane_quickstart [--authenticate USER] REQUEST CA_FILE DATA_DIR\n";
    return 2;
  }
  std::ifstream in(args[0]);
  const std::string request(std::istreambuf_iterator<char>(in), {});

  // The application's bundle: its identifier makes the facet ID the server must trust.
  const fs::path bundle = fs::path(args[2]) / "Quickstart.app";
  fs::create_directories(bundle);
  std::ofstream(bundle / "Info.plist")
      << R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
         "<key>CFBundleIdentifier</key><string>com.example.quickstart</string></dict></plist>\n";

  Error error;
  std::shared_ptr<linux_platform::EventLoop> loop = linux_platform::EventLoop::create(&error);
  if (!loop) return std::cerr << error.localizedDescription() << "\n", 1;
  linux_platform::LinuxPlatformOptions options;
  options.hostBundleDirectory = bundle;
  options.dataDirectory = fs::path(args[2]) / "store";
  options.extraCaFile = fs::path(args[1]);  // the server's development CA
#ifdef CORVANE_EXAMPLE_FRAMEWORK_BUNDLE
  if (*CORVANE_EXAMPLE_FRAMEWORK_BUNDLE)
    options.frameworkBundleDirectory = CORVANE_EXAMPLE_FRAMEWORK_BUNDLE;
#endif
  options.screenPresenter = std::make_shared<ScriptedScreens>(*loop);
  std::optional<Platform> platform = linux_platform::makePlatform(options, &error);
  if (!platform) return std::cerr << error.localizedDescription() << "\n", 1;
  platform->scheduler = loop;

  auto results = std::make_shared<Results>();
  std::unique_ptr<Corvane> corvane = Corvane::create(results, std::move(*platform), &error);
  if (!corvane) return std::cerr << error.localizedDescription() << "\n", 1;

  if (user) {
    corvane->doAuthentication(DoAuthReq{request, *user, {}, "Quickstart"});
  } else {
    corvane->doRegistration(DoRegReq{request, "pattern", "Quickstart", {}});
  }
  loop->runUntil([&] { return results->done; }, std::chrono::minutes(1));
  if (!results->done || results->error.code() != 0) {
    std::cerr << "failed: " << results->error.code() << " " << results->error.localizedDescription()
              << "\n";
    return 1;
  }
  std::cout << *results->response << "\n";
  return 0;
}
