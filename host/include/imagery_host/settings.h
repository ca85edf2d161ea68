// The settings store: typed user settings (bool, float, wide string) by project and key, the
// registration of keys with their defaults, and the XML file they persist to.
//
// One process-wide store guarded by its own mutex; every function here is thread-safe. Values are
// handed out by copy, never by reference, because another thread may change them at any time.
#pragma once

#include <functional>
#include <type_traits>
#include <variant>

#include "imagery_host/zel_path.h"
#include "imagery_host/zel_string.h"

namespace config {

using PropertyValue = std::variant<bool, float, ZELString>;

template <class T>
inline constexpr bool kIsPropertyType =
    std::is_same_v<T, bool> || std::is_same_v<T, float> || std::is_same_v<T, ZELString>;

namespace xml2 {

// Runs `initialiser` now and keeps it, so that ResetToDefaults and LoadFromFile can run it again.
// An initialiser typically stores a key's default when the key does not exist yet. It runs without the
// store's lock held, so it may use every function of this header except Register.
void Register(const char* project, const char* name, std::function<void()> initialiser);

}  // namespace xml2

namespace xml {
namespace detail {
// The value under the key when it holds the same alternative as `fallback`; otherwise stores
// `fallback` under the key and returns it.
PropertyValue GetOrStore(const char* name, const char* project, PropertyValue fallback);
void Store(const char* name, const char* project, PropertyValue value);
}  // namespace detail

bool PropertyExists(const char* name, const char* project);

// The value stored under the key. When the key is absent or holds another type, `fallback` is stored
// under it and returned.
template <class T>
T GetPropertyRef(const char* name, const char* project, const T& fallback) {
  static_assert(kIsPropertyType<T>, "settings hold bool, float or ZELString values");
  return std::get<T>(detail::GetOrStore(name, project, PropertyValue(fallback)));
}
inline ZELString GetPropertyRef(const char* name, const char* project, const wchar_t* fallback) {
  return GetPropertyRef<ZELString>(name, project, ZELString(fallback));
}

// Stores `value` under the key, replacing any value of any type. Only bool, float and ZELString
// (or a wide literal) are accepted: a double or int literal is a compile error rather than a guess.
template <class T>
void SetProperty(const char* name, const T& value, const char* project) {
  static_assert(kIsPropertyType<T>, "settings hold bool, float or ZELString values");
  detail::Store(name, project, PropertyValue(value));
}
inline void SetProperty(const char* name, const wchar_t* value, const char* project) {
  detail::Store(name, project, PropertyValue(ZELString(value)));
}

// Whether the key existed.
bool RemoveProperty(const char* name, const char* project);
// Removes every value; registered initialisers stay registered.
void Clear();
// Removes every value, then runs every registered initialiser in registration order.
void ResetToDefaults();

// Replaces the store's values by those of the file, then runs the registered initialisers so that keys
// the file lacks get their defaults. A file that cannot be read or is not a well-formed settings file
// (unknown types, unparsable values, missing names) leaves the store untouched and answers false.
bool LoadFromFile(const ZELPath& path);
// Writes every value to the file, through a temporary file renamed over it, so a failed write leaves
// the previous file intact. Answers false when the file cannot be written.
bool SaveToFile(const ZELPath& path);

}  // namespace xml
}  // namespace config
