#include "imagery/pixel_plane.h"

#include <atomic>
#include <climits>
#include <cstring>
#include <new>
#include <utility>

#include "imagery/detail/fault_injection.h"

namespace imagery {

namespace {
// Allocations left before the armed failure, this one included; 0 when none is armed.
std::atomic<int> allocationsBeforeFailure{0};

// True when this allocation is the one a test asked to fail.
bool InjectedFailure() {
  int left = allocationsBeforeFailure.load(std::memory_order_relaxed);
  while (left > 0 &&
         !allocationsBeforeFailure.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) {
  }
  return left == 1;
}
}  // namespace

namespace testing {
void FailPlaneAllocation(int n) {
  allocationsBeforeFailure.store(n > 0 ? n : 0, std::memory_order_relaxed);
}

int PlaneAllocationsBeforeFailure() {
  return allocationsBeforeFailure.load(std::memory_order_relaxed);
}
}  // namespace testing

PixelPlane::PixelPlane(int width, int height, EImageType type, GammaValue gamma) {
  Alloc(width, height, type, gamma);
}

PixelPlane::PixelPlane(PixelPlane&& other) noexcept {
  Swap(other);
}

PixelPlane& PixelPlane::operator=(PixelPlane&& other) noexcept {
  PixelPlane moved(std::move(other));
  Swap(moved);
  return *this;
}

PixelPlane::~PixelPlane() = default;

void PixelPlane::Alloc(int width, int height, EImageType type, GammaValue gamma) {
  Allocate(width, height, type, gamma, false);
}

void PixelPlane::AllocZeroed(int width, int height, EImageType type, GammaValue gamma) {
  Allocate(width, height, type, gamma, true);
}

void PixelPlane::Allocate(int width, int height, EImageType type, GammaValue gamma, bool zeroed) {
  // Unknown format bytes (from a damaged stream, say) still address one byte per pixel.
  const int bytesPerPixel = type > IT_UNDEFINED ? 1 : imagery::BytesPerPixel(type);
  const std::int64_t rowBytes =
      width > 0 ? (static_cast<std::int64_t>(width) * bytesPerPixel + 3) / 4 * 4 : 0;
  if (rowBytes > INT_MAX)
    throw std::bad_alloc();
  const std::uint64_t total =
      static_cast<std::uint64_t>(rowBytes) * static_cast<std::uint64_t>(height > 0 ? height : 0);
  // One block holding every byte keeps the pixels contiguous; an empty store keeps the default block.
  if (InjectedFailure())
    throw std::bad_alloc();
  auto store = std::make_unique<Store>();
  if (!store->Create(total, total, zeroed))
    throw std::bad_alloc();
  width_ = width;
  height_ = height;
  type_ = type;
  gamma_ = gamma;
  bytesPerPixel_ = bytesPerPixel;
  bytesPerLine_ = static_cast<int>(rowBytes);
  store_ = std::move(store);
  data_ = store_->GetBlock(0);
}

void PixelPlane::CopyFrom(const PixelPlane& source) {
  if (&source == this || width_ != source.width_ || height_ != source.height_ ||
      ByteSize() != source.ByteSize())
    return;
  if (ByteSize() != 0)
    std::memcpy(data_, source.data_, static_cast<std::size_t>(ByteSize()));
}

void PixelPlane::SetRGEncoded(bool on) {
  if (on ? (type_ == IT_RGB8 || type_ == IT_RGBA8) : IsRGEncoded(type_))
    type_ = SwapRGEncoding(type_);
}

void PixelPlane::Swap(PixelPlane& other) noexcept {
  std::swap(width_, other.width_);
  std::swap(height_, other.height_);
  std::swap(type_, other.type_);
  std::swap(gamma_, other.gamma_);
  std::swap(bytesPerLine_, other.bytesPerLine_);
  std::swap(bytesPerPixel_, other.bytesPerPixel_);
  std::swap(store_, other.store_);
  std::swap(data_, other.data_);
}

void PixelPlane::Zero() {
  if (ByteSize() != 0)
    std::memset(data_, 0, static_cast<std::size_t>(ByteSize()));
}

}  // namespace imagery
