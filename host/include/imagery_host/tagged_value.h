// zellib::TaggedValue: an option value wrapped in a tag type, so that two options of the same underlying
// type (say two bools) cannot be passed in each other's place.
#pragma once

#include <type_traits>

namespace zellib {

// A value of type T labelled with the empty type Tag. Construction from T is explicit, so a call site
// names the option it sets:
//
//   using CheckInImageList = zellib::TaggedValue<bool, CheckInImageListTag>;
//   ToGrayscale8(image, CheckInImageList(true), AutoScaleGrayScale(false), ...);
//
// Reading converts implicitly back to T (`if (checkInList)`), since that direction cannot mix options
// up. Values of different tags do not compare with each other. A plain value type: copies are cheap and
// independent.
template <typename T, typename Tag>
class TaggedValue {
 public:
  using value_type = T;
  using tag_type = Tag;

  // Value-initialised T (false, 0).
  constexpr TaggedValue() : value_() {}
  constexpr explicit TaggedValue(T value) : value_(value) {}

  constexpr T Value() const { return value_; }
  constexpr operator T() const { return value_; }  // NOLINT(google-explicit-constructor)

  friend constexpr bool operator==(const TaggedValue& a, const TaggedValue& b) {
    return a.value_ == b.value_;
  }
  friend constexpr bool operator!=(const TaggedValue& a, const TaggedValue& b) {
    return !(a.value_ == b.value_);
  }

  // Without these, both sides would convert to T and options of different kinds would compare.
  template <typename OtherTag, typename = std::enable_if_t<!std::is_same_v<OtherTag, Tag>>>
  bool operator==(const TaggedValue<T, OtherTag>&) const = delete;
  template <typename OtherTag, typename = std::enable_if_t<!std::is_same_v<OtherTag, Tag>>>
  bool operator!=(const TaggedValue<T, OtherTag>&) const = delete;

 private:
  T value_;
};

}  // namespace zellib
