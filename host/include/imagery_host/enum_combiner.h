// tools::EnumCombiner: a set of flags of an enumeration whose enumerators are single bits or masks.
#pragma once

#include <type_traits>

namespace tools {

// The flags are kept in Storage (an integer type wide enough for every enumerator). An enumerator converts
// implicitly to a set holding it, so a single flag can be passed wherever a set is expected; raw storage
// converts only explicitly. For a mask enumerator, IsSet asks for all of its bits and HasAny for one of
// them. A plain value type.
template <typename Enum, typename Storage = std::underlying_type_t<Enum>>
class EnumCombiner {
  static_assert(std::is_enum_v<Enum>, "EnumCombiner holds flags of an enumeration");
  static_assert(std::is_integral_v<Storage>, "EnumCombiner stores its flags in an integer");

 public:
  using enum_type = Enum;
  using storage_type = Storage;

  constexpr EnumCombiner() = default;
  constexpr EnumCombiner(Enum flag)
      : bits_(static_cast<Storage>(flag)) {}  // NOLINT(google-explicit-constructor)
  constexpr explicit EnumCombiner(Storage bits) : bits_(bits) {}

  constexpr Storage Value() const { return bits_; }
  constexpr bool IsEmpty() const { return bits_ == 0; }
  // Whether every bit of `flags` is set (true for an empty `flags`).
  constexpr bool IsSet(EnumCombiner flags) const { return (bits_ & flags.bits_) == flags.bits_; }
  // Whether at least one bit of `flags` is set.
  constexpr bool HasAny(EnumCombiner flags) const { return (bits_ & flags.bits_) != 0; }

  constexpr EnumCombiner& Set(EnumCombiner flags, bool on = true) {
    bits_ = static_cast<Storage>(on ? (bits_ | flags.bits_) : (bits_ & ~flags.bits_));
    return *this;
  }
  constexpr EnumCombiner& Clear(EnumCombiner flags) { return Set(flags, false); }
  constexpr EnumCombiner& Toggle(EnumCombiner flags) {
    bits_ = static_cast<Storage>(bits_ ^ flags.bits_);
    return *this;
  }
  // Clears every flag.
  constexpr EnumCombiner& Reset() {
    bits_ = 0;
    return *this;
  }

  constexpr EnumCombiner& operator|=(EnumCombiner other) { return Set(other); }
  constexpr EnumCombiner& operator&=(EnumCombiner other) {
    bits_ = static_cast<Storage>(bits_ & other.bits_);
    return *this;
  }
  constexpr EnumCombiner& operator^=(EnumCombiner other) { return Toggle(other); }

  friend constexpr EnumCombiner operator|(EnumCombiner a, EnumCombiner b) { return a |= b; }
  friend constexpr EnumCombiner operator&(EnumCombiner a, EnumCombiner b) { return a &= b; }
  friend constexpr EnumCombiner operator^(EnumCombiner a, EnumCombiner b) { return a ^= b; }
  // Complements every bit of the storage, not only the bits that name enumerators.
  friend constexpr EnumCombiner operator~(EnumCombiner a) {
    return EnumCombiner(static_cast<Storage>(~a.bits_));
  }
  friend constexpr bool operator==(EnumCombiner a, EnumCombiner b) { return a.bits_ == b.bits_; }
  friend constexpr bool operator!=(EnumCombiner a, EnumCombiner b) { return a.bits_ != b.bits_; }

 private:
  Storage bits_ = 0;
};

}  // namespace tools
