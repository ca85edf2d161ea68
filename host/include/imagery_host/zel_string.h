// ZELString: the host's wide string, a thin value type over std::wstring with the operations the
// library needs (printf-style formatting, tokenising, editing, comparison and UTF-8 conversion).
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

// A wide string. Positions and lengths are ints, as in the host's API; out-of-range positions are
// clamped as documented per operation rather than treated as errors. Not thread-safe for concurrent
// mutation; copies are independent.
class ZELString {
 public:
  ZELString() = default;
  ZELString(const wchar_t* text);  // NOLINT(google-explicit-constructor): literals convert implicitly
  ZELString(const wchar_t* text, std::size_t count);
  ZELString(std::wstring text);  // NOLINT(google-explicit-constructor)
  ZELString(std::size_t count, wchar_t fill);

  // Decodes UTF-8; malformed sequences become U+FFFD.
  static ZELString FromUTF8(std::string_view utf8);
  std::string ToUTF8() const;

  // printf-style formatting with the wide conventions: %ls for wide strings, %s for narrow ones.
  static ZELString Format(const wchar_t* format, ...);

  const std::wstring& wstr() const { return text_; }
  std::wstring& wstr() { return text_; }
  const wchar_t* c_str() const { return text_.c_str(); }
  int GetLength() const { return static_cast<int>(text_.size()); }
  bool IsEmpty() const { return text_.empty(); }
  void Empty() { text_.clear(); }
  wchar_t operator[](int index) const { return text_[static_cast<std::size_t>(index)]; }

  // Splits at `separator`, starting at character `start`. With keepEmpty false, empty pieces (from
  // repeated, leading or trailing separators) are dropped.
  std::vector<ZELString> TokenizeMe(wchar_t separator, int start, bool keepEmpty) const;

  // Inserts `text` before character `position`. A position past the end, or negative, appends: a name
  // without the searched-for marker then gets the new marker at its end.
  ZELString& Insert(int position, const ZELString& text);
  // Removes up to `count` characters from `position`; out-of-range parts are ignored.
  ZELString& Delete(int position, int count);
  ZELString& TrimLeft(wchar_t character);
  ZELString& TrimRight(wchar_t character);
  // Removes leading and trailing white space.
  ZELString& Trim();
  ZELString& MakeLower();
  ZELString& MakeUpper();

  // Position of the first occurrence at or after `start`, or -1.
  int Find(const ZELString& text, int start = 0) const;
  int Find(wchar_t character, int start = 0) const;
  int ReverseFind(wchar_t character) const;
  ZELString Left(int count) const;
  ZELString Right(int count) const;
  ZELString Mid(int first, int count = -1) const;
  bool StartsWith(const ZELString& prefix) const;
  bool EndsWith(const ZELString& suffix) const;

  // Ordinal comparison (<0, 0, >0); CompareNoCase folds case first.
  int Compare(const ZELString& other) const;
  int CompareNoCase(const ZELString& other) const;

  ZELString& operator+=(const ZELString& other);
  ZELString& operator+=(wchar_t character);

  friend bool operator==(const ZELString& a, const ZELString& b) { return a.text_ == b.text_; }
  friend bool operator!=(const ZELString& a, const ZELString& b) { return a.text_ != b.text_; }
  friend bool operator<(const ZELString& a, const ZELString& b) { return a.text_ < b.text_; }
  friend bool operator>(const ZELString& a, const ZELString& b) { return b.text_ < a.text_; }
  friend bool operator<=(const ZELString& a, const ZELString& b) { return !(b.text_ < a.text_); }
  friend bool operator>=(const ZELString& a, const ZELString& b) { return !(a.text_ < b.text_); }
  friend ZELString operator+(ZELString a, const ZELString& b) { return a += b; }

 private:
  std::wstring text_;
};

std::wostream& operator<<(std::wostream& out, const ZELString& text);
// Narrow streams receive UTF-8.
std::ostream& operator<<(std::ostream& out, const ZELString& text);
