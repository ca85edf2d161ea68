// zel_uid::PermUID: the permanent 128-bit identifier that tags an object for the whole life of a scene,
// saved with it and read back unchanged.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

class ZELStream;

namespace zel_uid {

// A 128-bit identifier. The default value is the null id. New ids are drawn from a random generator
// started from the system's entropy source and combined with a process-wide counter, so that two ids
// made in one process never collide (and ids from different processes collide only by chance, with
// probability around 2^-64 per pair). Making ids is thread-safe; a PermUID itself is a plain value.
class PermUID {
 public:
  static constexpr std::size_t kSize = 16;
  // The generation state that asks for a new identifier.
  static constexpr int kGenerateNew = 1;

  PermUID() = default;
  // kGenerateNew (1) makes a new identifier; any other state makes the null id.
  explicit PermUID(int generationState);

  static PermUID Generate() { return PermUID(kGenerateNew); }

  bool IsNull() const;
  void SetNull() { *this = PermUID(); }
  const unsigned char* GetBytes() const { return bytes_; }

  // 32 upper-case hexadecimal digits.
  std::string ToString() const;

  // The 16 bytes, raw. Read leaves the id unchanged when they are not all there.
  bool Write(ZELStream* stream) const;
  bool Read(ZELStream* stream);

  friend bool operator==(const PermUID& a, const PermUID& b);
  friend bool operator!=(const PermUID& a, const PermUID& b) { return !(a == b); }
  // Lexicographic on the bytes.
  friend bool operator<(const PermUID& a, const PermUID& b);

 private:
  unsigned char bytes_[kSize] = {};
};

}  // namespace zel_uid

template <>
struct std::hash<zel_uid::PermUID> {
  std::size_t operator()(const zel_uid::PermUID& id) const noexcept;
};
