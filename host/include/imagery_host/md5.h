// MD5 digests: the 16-byte value MD5digest and the incremental md5_init / md5_append / md5_finish
// interface that computes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

class ZELStream;

// The state of an incremental digest. Its contents are private to the implementation; a state is usable
// only after md5_init. States are plain values: copying one forks the digest at that point.
struct md5_state_t {
  alignas(8) unsigned char opaque[96];
};

void md5_init(md5_state_t* state);
// Adds `nbytes` bytes; `data` may be null only when `nbytes` is 0.
void md5_append(md5_state_t* state, const unsigned char* data, std::size_t nbytes);
// Writes the 16 digest bytes. The state must be initialised again before further use.
void md5_finish(md5_state_t* state, unsigned char digest[16]);

// A 16-byte MD5 digest. The default value is all zero (no digest). Copies are independent values.
class MD5digest {
 public:
  static constexpr std::size_t kSize = 16;

  MD5digest() = default;
  explicit MD5digest(const unsigned char* sixteenBytes) { Reset(sixteenBytes); }

  // Takes the 16 bytes at `sixteenBytes`; a null pointer makes the digest all zero.
  void Reset(const unsigned char* sixteenBytes);
  void Clear() { Reset(nullptr); }
  bool IsNull() const;

  const unsigned char* GetBytes() const { return bytes_; }
  unsigned char operator[](std::size_t index) const { return bytes_[index]; }

  // 32 hexadecimal digits, upper-case unless `lowerCase`.
  std::string ToHex(bool lowerCase = false) const;

  // The 16 bytes, raw. Read leaves the digest unchanged when they are not all there.
  bool Write(ZELStream* stream) const;
  bool Read(ZELStream* stream);

  friend bool operator==(const MD5digest& a, const MD5digest& b);
  friend bool operator!=(const MD5digest& a, const MD5digest& b) { return !(a == b); }
  // Lexicographic on the bytes.
  friend bool operator<(const MD5digest& a, const MD5digest& b);

 private:
  unsigned char bytes_[kSize] = {};
};

// The digest of `size` bytes at `data`.
MD5digest ComputeMD5(const void* data, std::size_t size);

template <>
struct std::hash<MD5digest> {
  std::size_t operator()(const MD5digest& digest) const noexcept;
};
