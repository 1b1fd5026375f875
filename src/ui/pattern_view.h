// PatternView: the grid of dots on which the user draws an unlock pattern, without any toolkit.
//
// A square of 3 x 3 or 4 x 4 dots. Touches of one drag come in as pannedOnView(); the view decides
// which dots they select, in order, and hands the list to its delegate when the finger lifts. What
// a toolkit draws is read from it: the dot centres, the selected dots, the polyline of the drawn
// line and whether the pattern is shown as wrong.
//
// The selected dots are secret: they live in buffers that are wiped whenever they are cleared or
// released. The list handed out at the end of a drag is the view's own; the grid shows it until
// the next drag or invalidateCurrentPattern().
//
// Thread-safety: main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "corvane/error.h"
#include "corvane/screen_types.h"
#include "corvane/secret_bytes.h"

namespace corvane {

// A pattern being drawn, and the line through its dots: wiped when the storage is released.
using PatternBuffer = std::vector<uint32_t, internal::WipingAllocator<uint32_t>>;
using PointBuffer = std::vector<Point, internal::WipingAllocator<Point>>;

class PatternDelegate {
 public:
  virtual ~PatternDelegate() = default;
  // The finger lifted with at least one dot selected. The list belongs to the view: read it in
  // place and keep no copy in clear.
  virtual void enteredPattern(std::span<const uint32_t> pattern) = 0;
  virtual void completedAnimations() = 0;
  // A new drag selected its first dot.
  virtual void startedDrawing() = 0;
};

class PatternView {
 public:
  enum class PanPhase { began, changed, ended, cancelled };

  // Each dot is this wide.
  static constexpr double kDotSize = 20;
  // Half the side of the square around a dot's centre that selects it: the first dot of a drag,
  // then every later one.
  static constexpr double kFirstDotTolerance = 30;
  static constexpr double kDotTolerance = 20;
  // A finger point is added to the line once it is this far from the last point in x or in y.
  static constexpr double kPointSpacing = 20;

  // `patternGrid` 0 makes a 3 x 3 grid, anything else 4 x 4; `isReg` selects the registration
  // colours. The delegate must outlive the view (it may be null).
  PatternView(PatternDelegate* delegate, int patternGrid, bool isReg);

  // Lays the dots out in a square view `width` points wide.
  void layoutSubviews(double width);
  // One touch event of the drag at `point`.
  void pannedOnView(PanPhase phase, Point point);
  // Clears the pattern and the line and the wrong-pattern display.
  void invalidateCurrentPattern();
  // Shows the selected dots and the line as wrong.
  void updateViewForInCorrectPattern();
  // The toolkit's animations ended: tells the delegate.
  void completedAnimations();

  // The first dot, in index order, whose centre is less than the tolerance away from `point` in
  // both x and y (30 points when `tolerance` is 1, else 20); absent, with the error "No View
  // Found" (code 1), when none is.
  [[nodiscard]] std::optional<size_t> viewInRangeForPoint(Point point, Error* error,
                                                          int tolerance) const;

  int side() const { return side_; }
  bool isReg() const { return isReg_; }
  const std::vector<Point>& dotCentres() const { return centres_; }
  const PatternBuffer& currentPattern() const { return currentPattern_; }
  const PointBuffer& pointsArray() const { return pointsArray_; }
  bool showsInvalid() const { return invalid_; }

 private:
  // True when the last point of the line is not a dot centre (a trailing finger point).
  bool shouldReplacePreviousPoint() const;
  // True when `point` is more than kPointSpacing from the last point in x or in y.
  bool shouldAddPoint(Point point) const;
  // Inserts, before the last entry, the first unselected dot whose centre lies on the segment
  // joining the last two points of the line.
  void checkForIntermediatePoint();
  void removeExtraLinesAndValidatePattern();
  bool isDotCentre(Point point) const;
  void clearPattern();

  PatternDelegate* delegate_;
  int side_;
  bool isReg_;
  std::vector<Point> centres_;
  PatternBuffer currentPattern_;
  PointBuffer pointsArray_;
  bool invalid_ = false;
};

}  // namespace corvane
