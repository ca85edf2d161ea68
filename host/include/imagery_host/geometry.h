// zel::TPoint2, a two-component point, and tools::ClipSegment, which clips a segment to a rectangle.
#pragma once

namespace zel {

// A point (or offset) in the plane. A plain aggregate-like value type.
template <typename T>
struct TPoint2 {
  T x{};
  T y{};

  constexpr TPoint2() = default;
  constexpr TPoint2(T px, T py) : x(px), y(py) {}

  constexpr TPoint2& operator+=(const TPoint2& other) {
    x += other.x;
    y += other.y;
    return *this;
  }
  constexpr TPoint2& operator-=(const TPoint2& other) {
    x -= other.x;
    y -= other.y;
    return *this;
  }
  constexpr TPoint2& operator*=(T factor) {
    x *= factor;
    y *= factor;
    return *this;
  }

  friend constexpr TPoint2 operator+(TPoint2 a, const TPoint2& b) { return a += b; }
  friend constexpr TPoint2 operator-(TPoint2 a, const TPoint2& b) { return a -= b; }
  friend constexpr TPoint2 operator-(const TPoint2& a) { return TPoint2(-a.x, -a.y); }
  friend constexpr TPoint2 operator*(TPoint2 a, T factor) { return a *= factor; }
  friend constexpr TPoint2 operator*(T factor, TPoint2 a) { return a *= factor; }
  friend constexpr bool operator==(const TPoint2& a, const TPoint2& b) { return a.x == b.x && a.y == b.y; }
  friend constexpr bool operator!=(const TPoint2& a, const TPoint2& b) { return !(a == b); }
};

}  // namespace zel

namespace tools {

// Clips the segment [a, b] to the closed rectangle [xMin, xMax] x [yMin, yMax], moving the ends in place
// (an end inside stays exactly where it was; the new ends lie inside the rectangle). Answers false when
// no point of the segment lies in the rectangle, when the rectangle is empty (a minimum above its
// maximum) or when a coordinate or bound is not finite; the ends are then left where they were, except
// that non-finite coordinates are replaced by the rectangle's minimum (or 0), so that callers may still
// convert them to integers. A segment reduced to a point inside the rectangle answers true.
bool ClipSegment(zel::TPoint2<float>& a, zel::TPoint2<float>& b, float xMin, float xMax, float yMin,
                 float yMax);

}  // namespace tools
