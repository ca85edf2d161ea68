// PixelPlane: the pixels of one image or one mip level, in one contiguous block of bytes.
//
// Rows start on 4-byte boundaries: bytes per line = width x bytes per pixel rounded up to a multiple of
// 4, and pixel (x, y) starts at y x bytes per line + x x bytes per pixel. The row padding belongs to the
// store: it is copied and checksummed with the pixels.
//
// Ownership. A plane owns its bytes; it is moved, never copied. Data(), Row() and PixelAddress() (and
// the cursors placed on the plane) stay valid until Alloc, a move, Swap or destruction.
//
// Threads. A plane has no lock. Any number of threads may read it at once; threads may write it at once
// only to disjoint bytes (the parallel loops give each thread its own rows), and nobody may read bytes
// another thread is writing. Alloc, SetRGEncoded, SetGamma, CopyFrom, Swap and Zero need the plane to
// themselves.
//
// Not checked: Row(y) and PixelAddress(x, y) compute addresses for any coordinates, inside the plane or
// not, and Data() is null for a plane without bytes; keep 0 <= x < Width() and 0 <= y < Height().
#pragma once

#include <cstdint>
#include <memory>

#include "imagery/export.h"
#include "imagery/gamma.h"
#include "imagery/pixel_format.h"
#include "imagery/plane_memory.h"
#include "imagery_host/block_cache.h"

namespace imagery {

class IMAGERY_API PixelPlane {
 public:
  using Store = ToolsBlockCache<PlaneMemoryPolicy>;

  // An unallocated plane: 0 x 0, IT_UNDEFINED, gamma "not set", no store.
  PixelPlane() = default;
  PixelPlane(int width, int height, EImageType type, GammaValue gamma);
  PixelPlane(PixelPlane&& other) noexcept;
  PixelPlane& operator=(PixelPlane&& other) noexcept;
  PixelPlane(const PixelPlane&) = delete;
  PixelPlane& operator=(const PixelPlane&) = delete;
  ~PixelPlane();

  // Replaces the store by a new one of bytes per line x height bytes, not initialised. Negative sizes
  // give an empty store. Throws std::bad_alloc when the memory cannot be had; the plane is then left
  // as it was.
  void Alloc(int width, int height, EImageType type, GammaValue gamma);
  // As Alloc, with every byte 0; cheaper than Alloc then Zero where the memory comes fresh from the
  // system, already zero (see plane_memory.h).
  void AllocZeroed(int width, int height, EImageType type, GammaValue gamma);
  // Copies every byte of `source` when both planes have the same width, height and byte size; does
  // nothing otherwise. Format and gamma are never changed.
  void CopyFrom(const PixelPlane& source);
  // IT_RGB8 <-> IT_RGEncoded and IT_RGBA8 <-> IT_RGEncodedAlpha; other formats are left alone.
  void SetRGEncoded(bool on);
  void Swap(PixelPlane& other) noexcept;

  int Width() const { return width_; }
  int Height() const { return height_; }
  EImageType Type() const { return type_; }
  GammaValue Gamma() const { return gamma_; }
  // Changes the gamma label only; stored values are not re-encoded.
  void SetGamma(GammaValue gamma) { gamma_ = gamma; }
  int BytesPerLine() const { return bytesPerLine_; }
  int BytesPerPixel() const { return bytesPerPixel_; }
  // Bytes per line x height (0 for an unallocated or empty plane).
  std::uint64_t ByteSize() const { return store_ ? store_->GetTotalSize() : 0; }
  bool IsAllocated() const { return store_ != nullptr; }
  const Store* GetStore() const { return store_.get(); }

  // The first byte of the pixels; null when the plane holds no bytes.
  unsigned char* Data() { return data_; }
  const unsigned char* Data() const { return data_; }
  unsigned char* Row(int y) { return data_ + static_cast<std::int64_t>(y) * bytesPerLine_; }
  const unsigned char* Row(int y) const { return data_ + static_cast<std::int64_t>(y) * bytesPerLine_; }
  unsigned char* PixelAddress(int x, int y) { return Row(y) + static_cast<std::int64_t>(x) * bytesPerPixel_; }
  const unsigned char* PixelAddress(int x, int y) const {
    return Row(y) + static_cast<std::int64_t>(x) * bytesPerPixel_;
  }
  // Sets every byte, padding included, to 0: black with alpha 0 in every format.
  void Zero();

 private:
  void Allocate(int width, int height, EImageType type, GammaValue gamma, bool zeroed);

  int width_ = 0;
  int height_ = 0;
  EImageType type_ = IT_UNDEFINED;
  GammaValue gamma_;
  int bytesPerLine_ = 0;
  int bytesPerPixel_ = 0;
  std::unique_ptr<Store> store_;
  // The store's single block, cached so that placing a cursor is one multiply-add.
  unsigned char* data_ = nullptr;
};

}  // namespace imagery
