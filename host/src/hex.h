// Hexadecimal text of byte strings, shared by the digest and identifier types.
#pragma once

#include <cstddef>
#include <string>

namespace zel::detail {

// Two digits per byte, high nibble first.
inline std::string BytesToHex(const unsigned char* bytes, std::size_t count, bool lowerCase) {
  const char* digits = lowerCase ? "0123456789abcdef" : "0123456789ABCDEF";
  std::string text(2 * count, '0');
  for (std::size_t i = 0; i < count; ++i) {
    text[2 * i] = digits[bytes[i] >> 4];
    text[2 * i + 1] = digits[bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace zel::detail
