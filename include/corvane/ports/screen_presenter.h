// ScreenPresenter: the port that shows the library's two screens, the pattern screen and the
// transaction confirmation screen, with whatever toolkit the host has (a terminal, a GUI, a test
// script).
//
// The library owns each screen's logic: what it shows, which dots a drag selects, what a button
// does. A presenter draws a screen from its read side, sends the user's input to its input side,
// and redraws when told that the screen changed. Everything here runs on the main thread
// (Scheduler); a presenter calls a screen only between present() and dismiss() of its handle.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "corvane/screen_types.h"

namespace corvane {

// The pattern screen: set a new pattern (drawn twice) or unlock with the stored one.
class PatternScreen {
 public:
  enum class TouchPhase { began, moved, ended, cancelled };

  // A text with the colour it is shown in (absent: the toolkit's default).
  struct Label {
    std::string text;
    std::optional<Color> color;
    bool operator==(const Label&) const = default;
  };

  virtual ~PatternScreen() = default;

  // --- Read side ---
  virtual Label title() const = 0;
  virtual Label info() const = 0;
  // The footer button (reset or cancel); `enabled` false greys it out.
  virtual Label button() const = 0;
  virtual bool buttonEnabled() const = 0;
  // An alert over the screen (an invalid new pattern), absent when none is shown.
  virtual std::optional<std::string> alert() const = 0;
  // Backgrounds of the header, the grid and the footer.
  virtual std::optional<Color> headerBackground() const = 0;
  virtual std::optional<Color> gridBackground() const = 0;
  virtual std::optional<Color> footerBackground() const = 0;

  // The grid: 3 or 4 dots a side, their centres for the width last laid out (row by row from the
  // top left, index 0 first), the dots selected so far in order, the polyline the finger draws,
  // and whether the pattern is shown as wrong.
  virtual int gridSide() const = 0;
  virtual std::vector<Point> dotCentres() const = 0;
  virtual std::vector<uint32_t> selectedDots() const = 0;
  virtual std::vector<Point> line() const = 0;
  virtual bool showsError() const = 0;
  virtual std::optional<Color> dotColor() const = 0;
  virtual std::optional<Color> lineColor() const = 0;

  // --- Input side ---
  // The grid's square side in points; call before the first touch and whenever it changes.
  virtual void layout(double width) = 0;
  // One touch event of a drag, at a point of the grid.
  virtual void touch(TouchPhase phase, Point point) = 0;
  virtual void pressButton() = 0;
  virtual void dismissAlert() = 0;
};

// The transaction confirmation screen: a page that shows the transaction, a confirm and a cancel
// button.
class TransactionScreen {
 public:
  virtual ~TransactionScreen() = default;

  // --- Read side ---
  // The page to load (UTF-8 HTML) with the base URL it is loaded under, and the script to run
  // once it has loaded, which hands the page the transaction content.
  virtual std::string pageHtml() const = 0;
  virtual std::string baseUrl() const = 0;
  virtual std::string scriptAfterLoad() const = 0;
  // The transaction content as text, for a presenter that shows no page (a terminal).
  virtual std::string transactionText() const = 0;
  virtual std::string confirmTitle() const = 0;
  virtual std::string cancelTitle() const = 0;
  virtual bool confirmEnabled() const = 0;
  virtual bool cancelEnabled() const = 0;
  // Whether the page may go to `url`. False means the decision is never given: the navigation
  // stays pending and the page stays as it is.
  virtual bool allowsNavigation(const std::string& url) const = 0;

  // --- Input side ---
  virtual void pressConfirm() = 0;
  virtual void pressCancel() = 0;
  // The user dismissed the screen by other means than its buttons (a swipe, closing a window).
  virtual void dismissedByUser() = 0;
};

class ScreenPresenter {
 public:
  using Handle = uint64_t;

  virtual ~ScreenPresenter() = default;

  // Shows a screen above whatever is shown; the screen must stay alive until dismiss(). The
  // handle is never 0.
  virtual Handle present(PatternScreen& screen) = 0;
  virtual Handle present(TransactionScreen& screen) = 0;
  // The screen's read side changed: redraw it.
  virtual void changed(Handle handle) = 0;
  // Takes the screen away; afterwards the presenter does not call it again. Unknown handles are
  // ignored.
  virtual void dismiss(Handle handle) = 0;
};

}  // namespace corvane
