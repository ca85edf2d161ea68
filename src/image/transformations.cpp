// The out-of-line parts of the transformation record: swapping, angle normalisation and the digest.
#include "imagery/transformations.h"

#include <cmath>
#include <cstring>
#include <type_traits>
#include <utility>

namespace imagery {
namespace {

// Appends the `size` bytes of `value` least significant first, whatever the machine's byte order.
template <class T>
unsigned char* PutLittleEndian(unsigned char* out, T value) {
  static_assert(sizeof(T) == 4 || sizeof(T) == 8, "whole 32- or 64-bit values");
  using Bits = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
  Bits bits;
  std::memcpy(&bits, &value, sizeof bits);
  for (std::size_t i = 0; i < sizeof bits; ++i)
    *out++ = static_cast<unsigned char>(bits >> (8 * i));
  return out;
}

}  // namespace

void ImageTransformations::Swap(ImageTransformations& other) noexcept {
  std::swap(flags_, other.flags_);
  std::swap(angle_, other.angle_);
  std::swap(dpi_, other.dpi_);
  std::swap(exposure_, other.exposure_);
  std::swap(contrast_, other.contrast_);
}

void ImageTransformations::ConstrainAngleBetweenZeroAndThreeSixty() {
  double whole = 0.0;
  const double fraction = std::modf(angle_, &whole);
  // fmod keeps the sign of the dividend and is exact, which is the integer remainder for every angle an
  // int can hold, and stays defined for the ones it cannot.
  double a = std::fmod(whole, 360.0) + fraction;
  if (a < 0.0)
    a += 360.0;
  angle_ = a;
}

MD5digest ImageTransformations::GetDigest() const {
  unsigned char bytes[27];
  unsigned char* out = bytes;
  out = PutLittleEndian(out, angle_);
  out = PutLittleEndian(out, dpi_);
  out = PutLittleEndian(out, exposure_);
  out = PutLittleEndian(out, contrast_);
  for (Transfo flag : {TF_InvertedColor, TF_InvertedNormal, TF_InvertedAlpha, TF_MirrorX, TF_MirrorY,
                       TF_ExposureContrast, TF_InvertedNormalGreen})
    *out++ = flags_.IsSet(flag) ? 1 : 0;
  return ComputeMD5(bytes, sizeof bytes);
}

}  // namespace imagery
