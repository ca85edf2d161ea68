// The chamfer distance field: its two-pass construction, the descent towards the nearest defined pixel
// and the picture of the distances.
#include "imagery/distance_field.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <vector>

#include "imagery/image.h"
#include "imagery/pixel_access.h"

namespace imagery {

namespace {

// a + k saturating at kUnreachedDistance, without a branch so that whole rows vectorise.
template <std::uint32_t K>
inline std::uint32_t Plus(std::uint32_t a) {
  return std::min(a, kUnreachedDistance - K) + K;
}

// The best of the three candidates from the neighbouring row (above in the forward pass, below in the
// backward one) for every pixel of a row, starting from `start` (the pixel's own value or "none").
void RowCandidates(const std::uint32_t* neighbourRow, int width, std::uint32_t* candidates) {
  for (int x = 0; x < width; ++x)
    candidates[x] = std::min(candidates[x], Plus<3>(neighbourRow[x]));
  for (int x = 1; x < width; ++x)
    candidates[x] = std::min(candidates[x], Plus<4>(neighbourRow[x - 1]));
  for (int x = 0; x + 1 < width; ++x)
    candidates[x] = std::min(candidates[x], Plus<4>(neighbourRow[x + 1]));
}

}  // namespace

// Both passes run a row at a time: the candidates from the finished neighbouring row are independent
// of each other and vectorise, and what is left is the chain along the row, d[x] = min(c[x], d[x-1] + 3).
// Written as g[x] = d[x] - 3x, that chain is a running minimum, g[x] = min(c[x] - 3x, g[x-1]): one
// dependent operation per pixel instead of an add, a saturation and a minimum. In 64 bits nothing
// overflows, and d[x] <= c[x] keeps every result at or below kUnreachedDistance, so the saturating sums
// of the pixel-by-pixel definition give the same values.
DistanceField::DistanceField(const Image& image, std::function<bool(int, int)> isDefined)
    : width_(std::max(image.Width(), 0)), height_(std::max(image.Height(), 0)) {
  const std::size_t count = static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_);
  distances_.reset(new std::uint32_t[count > 0 ? count : 1]);
  picks_.reset(static_cast<std::uint64_t*>(std::calloc(count > 0 ? count : 1, sizeof(std::uint64_t))));
  if (!picks_)
    throw std::bad_alloc();
  if (count == 0)
    return;

  const int width = width_;
  std::vector<std::uint32_t> candidates(static_cast<std::size_t>(width));
  std::vector<unsigned char> defined(static_cast<std::size_t>(width));
  bool anyDefined = false;

  for (int y = 0; y < height_; ++y) {
    for (int x = 0; x < width; ++x)
      defined[static_cast<std::size_t>(x)] = isDefined(x, y) ? 1 : 0;
    std::fill(candidates.begin(), candidates.end(), kUnreachedDistance);
    if (y > 0)
      RowCandidates(distances_.get() + static_cast<std::int64_t>(y - 1) * width, width, candidates.data());
    std::uint32_t* row = distances_.get() + static_cast<std::int64_t>(y) * width;
    std::int64_t running = INT64_MAX;
    for (int x = 0; x < width; ++x) {
      const std::int64_t offset = 3 * static_cast<std::int64_t>(x);
      const std::int64_t own =
          defined[static_cast<std::size_t>(x)] ? 0 : candidates[static_cast<std::size_t>(x)];
      running = std::min(running, own - offset);
      row[x] = static_cast<std::uint32_t>(running + offset);
    }
    for (int x = 0; x < width; ++x)
      anyDefined |= defined[static_cast<std::size_t>(x)] != 0;
  }

  // Defined pixels need no test here: their 0 is the smallest candidate there is.
  for (int y = height_ - 1; y >= 0; --y) {
    std::uint32_t* row = distances_.get() + static_cast<std::int64_t>(y) * width;
    std::copy(row, row + width, candidates.begin());
    if (y + 1 < height_)
      RowCandidates(row + width, width, candidates.data());
    std::int64_t running = INT64_MAX;
    for (int x = width - 1; x >= 0; --x) {
      const std::int64_t offset = 3 * static_cast<std::int64_t>(x);
      running = std::min(running, candidates[static_cast<std::size_t>(x)] + offset);
      row[x] = static_cast<std::uint32_t>(running - offset);
    }
  }
  anyDefined_ = anyDefined;
}

DistanceField::~DistanceField() = default;

std::uint32_t DistanceField::GetDistance(int x, int y) const {
  if (x < 0 || y < 0 || x >= width_ || y >= height_)
    return kUnreachedDistance;
  return distances_[static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) +
                    static_cast<std::size_t>(x)];
}

std::uint32_t DistanceField::GetNextDistance(int& x, int& y) const {
  static constexpr int kSteps[8][2] = {{-1, 0}, {1, 0}, {0, 1}, {0, -1}, {-1, 1}, {1, 1}, {1, -1}, {-1, -1}};
  int best = 0;
  std::uint32_t bestDistance = GetDistance(x + kSteps[0][0], y + kSteps[0][1]);
  for (int i = 1; i < 8; ++i) {
    const std::uint32_t distance = GetDistance(x + kSteps[i][0], y + kSteps[i][1]);
    if (distance < bestDistance) {
      bestDistance = distance;
      best = i;
    }
  }
  x += kSteps[best][0];
  y += kSteps[best][1];
  return bestDistance;
}

// The descent is walked twice rather than recursively, so that its length never matters: once to find
// where it ends (a defined pixel, or a pixel whose answer is already known), then again to remember that
// answer for every pixel it passed.
void DistanceField::GetColorToPickCoordinates(int& x, int& y) const {
  if (!anyDefined_)
    return;
  const auto index = [this](int px, int py) {
    return static_cast<std::uint64_t>(py) * static_cast<std::uint64_t>(width_) +
           static_cast<std::uint64_t>(px);
  };
  const std::uint64_t start = index(x, y);
  if (distances_[start] == 0)
    return;
  std::uint64_t target = picks_[start];
  if (target == 0) {
    int px = x, py = y;
    std::uint32_t distance = distances_[start];
    std::uint64_t steps = 0;
    for (;;) {
      const std::uint32_t next = GetNextDistance(px, py);
      ++steps;
      const std::uint64_t at = index(px, py);
      if (next == 0) {
        target = at + 1;
        break;
      }
      if (picks_[at] != 0) {
        target = picks_[at];
        break;
      }
      // A complete field always has a strictly nearer neighbour; stopping here only keeps a damaged one
      // from looping.
      if (next >= distance) {
        target = at + 1;
        break;
      }
      distance = next;
    }
    px = x;
    py = y;
    for (std::uint64_t i = 0; i < steps; ++i) {
      picks_[index(px, py)] = target;
      GetNextDistance(px, py);
    }
  }
  x = static_cast<int>((target - 1) % static_cast<std::uint64_t>(width_));
  y = static_cast<int>((target - 1) / static_cast<std::uint64_t>(width_));
}

void DistanceField::FillImageWithDistance(Image& image) const {
  image.MakeUniqueIfFactoryDefault();
  ImageImpl& impl = image.GetImplRef();
  PixelPlane& plane = impl.Plane();
  const int width = std::min(width_, plane.Width());
  const int height = std::min(height_, plane.Height());
  if (width < 1 || height < 1 || plane.Data() == nullptr)
    return;
  impl.InvalidateMipMaps(true, true);
  DispatchImageType(plane.Type(), [&](auto t) {
    TypedPixelAccess<decltype(t)::value> cursor(plane, 0, 0);
    for (int y = 0; y < height; ++y) {
      const std::uint32_t* distances = DistanceRow(y);
      cursor.MoveTo(0, y);
      for (int x = 0; x < width; ++x, cursor.Next())
        cursor.SetPixelGrayscale(static_cast<float>(distances[x]) / 384.0f);
    }
  });
}

}  // namespace imagery
