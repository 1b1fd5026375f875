// PatternViewController: the pattern screen's logic. It asks the user to set a new pattern (draw
// it, then draw it again to confirm) or to unlock with the stored one, applies the size and reuse
// rules, counts the tries of the lockout round in force, and reports the outcome to its delegate.
// It is the PatternScreen a ScreenPresenter draws, and owns the PatternView of the grid.
//
// Patterns: a first drawing is kept only as a keyed digest (a random key of this screen), a
// confirmed new pattern is sealed for the pattern store at once, and an unlock attempt is checked
// against the store inside the call; no clear copy outlives the call that received it.
//
// Thread-safety: main thread only; its delegate is called on the main thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "authenticator/commands.h"
#include "configuration/configuration.h"
#include "configuration/pattern_lock_policy.h"
#include "corvane/ports/scheduler.h"
#include "corvane/ports/screen_presenter.h"
#include "corvane/secret_bytes.h"
#include "foundation/result.h"
#include "storage/pattern_manager.h"
#include "ui/pattern_view.h"

namespace corvane {

// The controller goes on working after some of these calls (a wrong try) and returns through its
// grid after all of them: a delegate must not destroy it inside a call, only from a later
// main-queue task.
class PatternViewControllerDelegate {
 public:
  virtual ~PatternViewControllerDelegate() = default;
  // The stored pattern was drawn.
  virtual void unlockedPatternSendBackCommand(const SignCommand& command) = 0;
  // A new pattern was drawn twice; `sealedPattern` is it sealed for the pattern store, or why it
  // could not be sealed. The delegate stores it with the registration.
  virtual void modifiedPatternSendBackCommand(const RegisterCommand& command,
                                              Result<SecretBytes> sealedPattern) = 0;
  virtual void cancelModified() = 0;
  virtual void cancelUnlocked() = 0;
  // The last try of the round was wrong; called 3 seconds after it, once the screen is closed.
  virtual void userLockOut(const SignCommand& command) = 0;
  // The user left an unlock started from the transaction screen.
  virtual void backToConfirmTransactions(const SignCommand& command) = 0;
  // A wrong try, reported at once (the last try of a round included) so that the count survives
  // a closed screen or a killed process.
  virtual void wrongPatternEntered(const SignCommand& command) = 0;
  // The stored pattern could not be read (the screen is closed): no try was counted.
  virtual void patternCheckFailed(const SignCommand& command, const Error& error) = 0;
};

class PatternViewController final : public PatternScreen, private PatternDelegate {
 public:
  enum class Mode { unlock = 0, set = 1, unlockFromTransaction = 2 };
  enum class State { unlockEntry = 0, firstDrawing = 1, confirming = 2 };

  static constexpr size_t kMinimumDots = 6;
  static constexpr size_t kMaximumDots = 16;
  // How long the lock-out text stays before the screen closes.
  static constexpr std::chrono::milliseconds kLockOutClose{3000};

  // What the screen works with; everything must outlive the controller.
  struct Services {
    const Configuration& configuration;
    PatternManager& patterns;
    Scheduler& scheduler;
    ScreenPresenter& presenter;
  };

  // The set-pattern screen for `command`'s user.
  PatternViewController(Services services, PatternViewControllerDelegate& delegate,
                        RegisterCommand command, int patternGrid = 0);
  // An unlock screen (mode unlock or unlockFromTransaction) for `command`'s user in the round
  // `patternLockPolicy`, with `triesLeft` tries left in it (the round's timesPerRound, less the
  // wrong tries already counted).
  PatternViewController(Services services, PatternViewControllerDelegate& delegate, Mode mode,
                        SignCommand command, PatternLockPolicy patternLockPolicy, int64_t triesLeft,
                        int patternGrid = 0);
  ~PatternViewController() override;
  PatternViewController(const PatternViewController&) = delete;
  PatternViewController& operator=(const PatternViewController&) = delete;

  // Presents the screen; close() takes it away. Both are idempotent.
  void show();
  void close();
  bool isShown() const { return handle_ != 0; }

  Mode patternMode() const { return mode_; }
  State patternState() const { return state_; }
  int64_t retryCount() const { return retryCount_; }
  const PatternView& patternView() const { return view_; }

  // Back to the first drawing of a new pattern (the footer button while confirming).
  void cancelModification();
  // Clears the grid, closes the screen and tells the delegate the user left (the footer button).
  void resetPattern();

  // PatternScreen.
  Label title() const override;
  Label info() const override { return info_; }
  Label button() const override;
  bool buttonEnabled() const override { return buttonEnabled_; }
  std::optional<std::string> alert() const override { return alert_; }
  std::optional<Color> headerBackground() const override;
  std::optional<Color> gridBackground() const override;
  std::optional<Color> footerBackground() const override;
  int gridSide() const override { return view_.side(); }
  std::vector<Point> dotCentres() const override { return view_.dotCentres(); }
  std::vector<uint32_t> selectedDots() const override;
  std::vector<Point> line() const override;
  bool showsError() const override { return view_.showsInvalid(); }
  std::optional<Color> dotColor() const override;
  std::optional<Color> lineColor() const override;
  void layout(double width) override;
  void touch(TouchPhase phase, Point point) override;
  void pressButton() override;
  void dismissAlert() override;

 private:
  // PatternDelegate.
  void enteredPattern(std::span<const uint32_t> pattern) override;
  void completedAnimations() override {}
  void startedDrawing() override {}

  void enteredNewPattern(std::span<const uint32_t> pattern);
  void enteredConfirmation(std::span<const uint32_t> pattern);
  void enteredUnlock(std::span<const uint32_t> pattern);
  // The keyed digest a first drawing is kept as.
  SecretBytes digest(std::span<const uint32_t> pattern) const;
  bool isSet() const { return mode_ == Mode::set; }
  Label text(std::string_view textKey, std::string_view colorKey) const;
  std::optional<Color> color(std::string_view registrationKey,
                             std::string_view authenticationKey) const;
  void changed();

  Services services_;
  PatternViewControllerDelegate& delegate_;
  Mode mode_;
  State state_;
  std::optional<RegisterCommand> registerCommand_;
  std::optional<SignCommand> signCommand_;
  PatternLockPolicy patternLockPolicy_;
  int64_t retryCount_ = 0;
  PatternView view_;
  Label info_;
  bool buttonEnabled_ = true;
  std::optional<std::string> alert_;
  SecretBytes digestKey_;
  SecretBytes tempPattern_;  // the first drawing's digest
  ScreenPresenter::Handle handle_ = 0;
  // Gone with the controller, so that a delayed close posted earlier does nothing.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace corvane
