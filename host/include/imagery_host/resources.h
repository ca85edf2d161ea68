// Resource texts by numeric identifier: the host's table of user-visible strings, looked up by a 64-bit
// CRC identifier (Tools::CRC) or a plain integer.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "imagery_host/error.h"
#include "imagery_host/zel_string.h"

namespace Tools {
// A 64-bit identifier of a resource text.
struct CRC {
  std::uint64_t value = 0;
  constexpr CRC() = default;
  constexpr explicit CRC(std::uint64_t v) : value(v) {}
  friend constexpr bool operator==(CRC a, CRC b) { return a.value == b.value; }
  friend constexpr bool operator<(CRC a, CRC b) { return a.value < b.value; }
};
}  // namespace Tools

namespace zel {

// An identifier of a resource text: empty, a CRC, or an integer.
class ResourceNumericId {
 public:
  enum class Kind { Empty, Crc, Integer };

  ResourceNumericId() = default;
  ResourceNumericId(Tools::CRC crc)
      : kind_(Kind::Crc), value_(crc.value) {}  // NOLINT(google-explicit-constructor)
  static ResourceNumericId FromInteger(int value);

  Kind GetKind() const { return kind_; }
  std::uint64_t Value() const { return value_; }
  // "crc:0x%016x" for a CRC, "%d" for an integer, "undefined" when empty.
  ZELString ToText() const;

  friend bool operator<(const ResourceNumericId& a, const ResourceNumericId& b) {
    return std::make_pair(a.kind_, a.value_) < std::make_pair(b.kind_, b.value_);
  }
  friend bool operator==(const ResourceNumericId& a, const ResourceNumericId& b) {
    return a.kind_ == b.kind_ && a.value_ == b.value_;
  }

 private:
  Kind kind_ = Kind::Empty;
  std::uint64_t value_ = 0;
};

// The process-wide table of resource texts. It starts with the English texts of the library's
// identifiers; a host may add, replace or remove texts (for another language). Thread-safe.
class ResourceStringHolder {
 public:
  static ResourceStringHolder& Instance();

  // Fills `text` and answers a good code, or answers an internal error "ZELRES001" when the identifier
  // has no text (leaving `text` unchanged).
  ErrorCode GetStringInto(const ResourceNumericId& id, ZELString& text) const;
  void SetString(const ResourceNumericId& id, const ZELString& text);
  void RemoveString(const ResourceNumericId& id);
  // Back to the built-in English texts.
  void ResetToDefaults();

 private:
  ResourceStringHolder();

  mutable std::mutex mutex_;
  std::map<ResourceNumericId, ZELString> texts_;
};

}  // namespace zel
