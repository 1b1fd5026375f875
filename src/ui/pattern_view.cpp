#include "ui/pattern_view.h"

#include <algorithm>
#include <cmath>

#include "foundation/utils.h"

namespace corvane {

namespace {

template <typename Buffer>
void wipe(Buffer& buffer) {
  if (!buffer.empty()) {
    internal::secureWipe(buffer.data(), buffer.size() * sizeof(typename Buffer::value_type));
  }
  buffer.clear();
}

}  // namespace

PatternView::PatternView(PatternDelegate* delegate, int patternGrid, bool isReg)
    : delegate_(delegate), side_(patternGrid == 0 ? 3 : 4), isReg_(isReg) {}

void PatternView::layoutSubviews(double width) {
  // With d dots of kDotSize a side: margin, dot, padding, dot, ..., dot, margin, where the margins
  // are half a padding, so that side * padding + side * kDotSize fills the width.
  const double padding = (width - side_ * kDotSize) / side_;
  const double margin = padding / 2;
  centres_.clear();
  for (int row = 0; row < side_; ++row) {
    for (int column = 0; column < side_; ++column) {
      centres_.push_back({margin + column * (kDotSize + padding) + kDotSize / 2,
                          margin + row * (kDotSize + padding) + kDotSize / 2});
    }
  }
}

std::optional<size_t> PatternView::viewInRangeForPoint(Point point, Error* error,
                                                       int tolerance) const {
  const double t = tolerance == 1 ? kFirstDotTolerance : kDotTolerance;
  for (size_t i = 0; i < centres_.size(); ++i) {
    if (std::fabs(point.x - centres_[i].x) < t && std::fabs(point.y - centres_[i].y) < t) return i;
  }
  setError(error, Error::corvane(1, "No View Found"));
  return std::nullopt;
}

bool PatternView::isDotCentre(Point point) const {
  return std::find(centres_.begin(), centres_.end(), point) != centres_.end();
}

bool PatternView::shouldReplacePreviousPoint() const {
  return !pointsArray_.empty() && !isDotCentre(pointsArray_.back());
}

bool PatternView::shouldAddPoint(Point point) const {
  if (pointsArray_.empty()) return true;
  const Point last = pointsArray_.back();
  return std::fabs(point.x - last.x) > kPointSpacing || std::fabs(point.y - last.y) > kPointSpacing;
}

void PatternView::checkForIntermediatePoint() {
  if (pointsArray_.size() < 2) return;
  const Point last = pointsArray_[pointsArray_.size() - 1];
  const Point before = pointsArray_[pointsArray_.size() - 2];
  for (size_t i = 0; i < centres_.size(); ++i) {
    const auto index = static_cast<uint32_t>(i);
    if (std::find(currentPattern_.begin(), currentPattern_.end(), index) != currentPattern_.end()) {
      continue;
    }
    if (!Utils::point(centres_[i], last, before)) continue;
    // At most one dot per step: on a 4 x 4 row crossed end to end the second skipped dot stays
    // unselected.
    currentPattern_.insert(currentPattern_.end() - 1, index);
    pointsArray_.insert(pointsArray_.end() - 1, centres_[i]);
    return;
  }
}

void PatternView::pannedOnView(PanPhase phase, Point point) {
  const std::optional<size_t> dot =
      viewInRangeForPoint(point, nullptr, currentPattern_.empty() ? 1 : 0);
  switch (phase) {
    case PanPhase::began:
      if (!currentPattern_.empty()) invalidateCurrentPattern();
      if (dot) {
        pointsArray_.push_back(centres_[*dot]);
        currentPattern_.push_back(static_cast<uint32_t>(*dot));
        if (delegate_ != nullptr) delegate_->startedDrawing();
      }
      break;
    case PanPhase::changed:
      if (pointsArray_.empty()) break;
      if (pointsArray_.size() == 1) {
        pointsArray_.push_back(point);
      } else if (dot && static_cast<uint32_t>(*dot) != currentPattern_.back()) {
        // A dot already in the pattern further back is appended again; nothing forbids it.
        currentPattern_.push_back(static_cast<uint32_t>(*dot));
        pointsArray_.back() = centres_[*dot];
        checkForIntermediatePoint();
      } else if (shouldReplacePreviousPoint()) {
        pointsArray_.back() = point;
      } else if (shouldAddPoint(point)) {
        pointsArray_.push_back(point);
      }
      break;
    case PanPhase::ended:
    case PanPhase::cancelled:
      removeExtraLinesAndValidatePattern();
      break;
  }
}

void PatternView::removeExtraLinesAndValidatePattern() {
  if (shouldReplacePreviousPoint()) pointsArray_.pop_back();
  if (currentPattern_.empty() || delegate_ == nullptr) return;
  // The delegate reads the list in place and keeps no copy in clear; the grid goes on showing it
  // (as a wrong pattern, say) until the next drag or invalidateCurrentPattern() wipes it.
  delegate_->enteredPattern(currentPattern_);
}

void PatternView::clearPattern() {
  wipe(currentPattern_);
  wipe(pointsArray_);
}

void PatternView::invalidateCurrentPattern() {
  clearPattern();
  invalid_ = false;
}

void PatternView::updateViewForInCorrectPattern() {
  invalid_ = true;
}

void PatternView::completedAnimations() {
  if (delegate_ != nullptr) delegate_->completedAnimations();
}

}  // namespace corvane
