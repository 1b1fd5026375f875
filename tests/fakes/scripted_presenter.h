// A ScreenPresenter for tests: keeps the screens shown, in order, and lets a test act as the
// user on the top one: draw a pattern through the dot centres, press buttons, swipe a screen
// away.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <variant>

#include "corvane/ports/screen_presenter.h"

namespace corvane::testing {

class ScriptedPresenter final : public ScreenPresenter {
 public:
  static constexpr double kWidth = 300;

  Handle present(PatternScreen& screen) override { return add(&screen); }
  Handle present(TransactionScreen& screen) override { return add(&screen); }
  void changed(Handle handle) override { ++changes_[handle]; }
  void dismiss(Handle handle) override { shown_.erase(handle); }

  size_t shownCount() const { return shown_.size(); }
  size_t presentedCount() const { return next_ - 1; }

  // The top screen when it is a pattern screen (a transaction screen), else null.
  PatternScreen* pattern() const { return top<PatternScreen>(); }
  TransactionScreen* transaction() const { return top<TransactionScreen>(); }

  // Drags a finger over the centres of `dots` on the top pattern screen: began on the first,
  // moved to each next one, ended on the last.
  bool draw(std::initializer_list<uint32_t> dots) {
    PatternScreen* screen = pattern();
    if (screen == nullptr || dots.size() == 0) return false;
    screen->layout(kWidth);
    const std::vector<Point> centres = screen->dotCentres();
    auto phase = PatternScreen::TouchPhase::began;
    for (uint32_t dot : dots) {
      screen->touch(phase, centres.at(dot));
      phase = PatternScreen::TouchPhase::moved;
    }
    screen->touch(PatternScreen::TouchPhase::ended, centres.at(*(dots.end() - 1)));
    return true;
  }

 private:
  using Screen = std::variant<PatternScreen*, TransactionScreen*>;

  Handle add(Screen screen) {
    shown_.emplace(next_, screen);
    return next_++;
  }

  template <typename T>
  T* top() const {
    if (shown_.empty()) return nullptr;
    T* const* screen = std::get_if<T*>(&shown_.rbegin()->second);
    return screen != nullptr ? *screen : nullptr;
  }

  Handle next_ = 1;
  std::map<Handle, Screen> shown_;
  std::map<Handle, int> changes_;
};

}  // namespace corvane::testing
