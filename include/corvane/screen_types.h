// Point and Color: what the screen logic lays out and paints with, shared with the presenters.
#pragma once

namespace corvane {

// A position on a screen, in points (the unit the screen logic lays out in).
struct Point {
  double x = 0;
  double y = 0;
  bool operator==(const Point&) const = default;
};

// An RGBA colour, each component in [0, 1].
struct Color {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 1;
  bool operator==(const Color&) const = default;
};

}  // namespace corvane
