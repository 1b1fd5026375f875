// TerminalPresenter: the pattern and transaction screens on a text terminal.
//
// The pattern screen is drawn as a grid of dot numbers (from 0, row by row) with the screen's
// title, information text and footer button; the user types the dots of a pattern ("0,1,2,5,8,7")
// and the presenter turns them into a drag through the dot centres, so the library's geometry
// decides which dots in between are taken, exactly as a finger would. "b" presses the footer
// button. The transaction screen shows the text content as plain text (control characters shown
// as "?") and asks to confirm or cancel. End of input counts as cancel.
//
// Input is read from the main queue, one line per task, so the library's own tasks (the delayed
// close after the last try) run in between. Thread-safety: main thread only.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <variant>

#include "corvane/ports/scheduler.h"
#include "corvane/ports/screen_presenter.h"

namespace corvane::linux_platform {

class TerminalPresenter final : public ScreenPresenter {
 public:
  // Reads from `in`, writes to `out`; both must outlive the presenter. `colors`: whether the
  // terminal shows ANSI colours. The scheduler must outlive the presenter.
  TerminalPresenter(Scheduler& scheduler, std::FILE* in, std::FILE* out, bool colors);
  ~TerminalPresenter() override;

  Handle present(PatternScreen& screen) override;
  Handle present(TransactionScreen& screen) override;
  void changed(Handle handle) override;
  void dismiss(Handle handle) override;

 private:
  using Screen = std::variant<PatternScreen*, TransactionScreen*>;
  void schedulePrompt(Handle handle);
  void prompt(Handle handle);
  void promptPattern(Handle handle, PatternScreen& screen);
  void promptTransaction(TransactionScreen& screen);

  Scheduler& scheduler_;
  std::FILE* in_;
  std::FILE* out_;
  bool colors_;
  Handle next_ = 1;
  std::map<Handle, Screen> shown_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace corvane::linux_platform
