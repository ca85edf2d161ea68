// DistanceField: for every pixel of an image, the 3-4 chamfer distance to the nearest pixel that the
// caller calls defined, and for every undefined pixel the defined pixel whose colour it should take.
// It guides the edge dilation of edge_dilation.h.
//
// Units. Distances count 3 per horizontal or vertical step and 4 per diagonal step (so d / 3 is about the
// number of pixel steps); 0 marks a defined pixel, kUnreachedDistance a pixel no defined pixel reaches
// (every pixel of a field without defined pixels). Sums saturate at kUnreachedDistance.
//
// Ownership. The field owns its arrays (width x height distances and as many pick answers); it keeps
// neither the image nor the predicate it was built from. It can be moved, not copied.
//
// Threads. Construction may borrow one worker of the host's pool for the passes (never for the
// predicate); the distances are the same on any number of threads. Distances never change after
// construction and may be read from any number of threads at once. GetColorToPickCoordinates remembers its
// answers inside the field although it is const: it must not run on two threads at the same time on one
// field, nor beside anything else that picks.
//
// Not checked: FillImageWithDistance expects an image of the field's size (it writes only the pixels the
// two have in common), and DistanceRow expects 0 <= y < Height().
#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>

#include "imagery/export.h"

namespace imagery {

class Image;

inline constexpr std::uint32_t kUnreachedDistance = 0xFFFFFFFFu;

class IMAGERY_API DistanceField {
 public:
  // Builds the field for the size of `image` (its pixels are not read). isDefined(x, y) is called exactly
  // once per pixel, rows top to bottom and each row left to right, on the calling thread. An empty
  // predicate throws std::bad_function_call at the first pixel; allocation failures throw too.
  DistanceField(const Image& image, std::function<bool(int, int)> isDefined);
  DistanceField(DistanceField&&) noexcept = default;
  DistanceField& operator=(DistanceField&&) noexcept = default;
  DistanceField(const DistanceField&) = delete;
  DistanceField& operator=(const DistanceField&) = delete;
  ~DistanceField();

  // Whether at least one pixel is defined.
  bool HasDefinedPixels() const { return anyDefined_; }
  int Width() const { return width_; }
  int Height() const { return height_; }

  // The pixel's distance; kUnreachedDistance outside the image.
  std::uint32_t GetDistance(int x, int y) const;
  // The distances of row y, Width() values, for whole-row loops.
  const std::uint32_t* DistanceRow(int y) const {
    return distances_.get() + static_cast<std::int64_t>(y) * width_;
  }

  // Moves (x, y) to its neighbour of smallest distance and returns that distance. Neighbours are tried in
  // the order left, right, below, above, below-left, below-right, above-right, above-left, and the first
  // of equal smallest distances wins; a neighbour outside the image counts as kUnreachedDistance. The
  // pixel's own distance plays no part.
  std::uint32_t GetNextDistance(int& x, int& y) const;

  // Replaces (x, y) by the defined pixel whose colour this pixel takes: the end of the descent that
  // GetNextDistance makes from it. Defined pixels, and every pixel of a field without defined pixels,
  // stay as they are. Answers are remembered for every pixel the descent passes, so picking every pixel
  // of an image costs time in proportion to the number of pixels.
  void GetColorToPickCoordinates(int& x, int& y) const;

  // Writes distance / 384 as the grey value of every pixel (so 1 at 128 straight steps, and beyond 1
  // farther out), through the image's gamma, into the image's current implementation; both mip chains
  // are invalidated.
  void FillImageWithDistance(Image& image) const;

 private:
  struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
  };
  // Distances live in plane memory (see plane_memory.h): a large field is huge-page backed, and the
  // block of a field just destroyed serves the next one without page faults.
  struct PlaneDeleter {
    std::size_t bytes;
    void operator()(std::uint32_t* p) const;
  };

  bool anyDefined_ = false;
  int width_ = 0;
  int height_ = 0;
  std::unique_ptr<std::uint32_t[], PlaneDeleter> distances_;
  // The picked pixel's linear index plus one, 0 while unknown. The array comes zeroed from the system
  // (calloc), so only the pages of pixels actually picked ever cost memory; a dilation picks only along
  // the edges of the defined region.
  mutable std::unique_ptr<std::uint64_t[], FreeDeleter> picks_;
};

}  // namespace imagery
