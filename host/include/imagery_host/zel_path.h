// ZELPath and the host's file helpers: path parts, existence and modification times, path sanitising,
// and the name matching used to recognise file tags (zel::HumanMatch).
#pragma once

#include <cstdint>
#include <iosfwd>
#include <system_error>

#include "imagery_host/zel_string.h"

// A file path held as wide text, with '/' as the separator it adds (both '/' and '\\' are recognised
// when splitting, so that paths written on other systems still split into folder and leaf).
class ZELPath {
 public:
  ZELPath() = default;
  ZELPath(const ZELString& text);  // NOLINT(google-explicit-constructor)
  ZELPath(const wchar_t* text);    // NOLINT(google-explicit-constructor)

  const ZELString& GetString() const { return text_; }
  // The path as the file system wants it (UTF-8).
  std::string local_string() const;
  bool empty() const { return text_.IsEmpty(); }

  // The last component ("brick_Color.png"); empty for an empty path.
  ZELString leaf() const;
  // The last component without its extension ("brick_Color").
  ZELString leaf_without_extension() const;
  // The extension with its dot (".png"), or empty.
  ZELString extension() const;
  // Everything before the last separator ("" when there is none).
  ZELPath parent_path() const;
  bool is_absolute() const;
  // Whether the file or folder exists; a failure to tell is reported through `error` and answers false.
  bool exists(std::error_code& error) const;

  // Joins with a single '/'.
  ZELPath operator/(const ZELPath& other) const;
  ZELPath& operator/=(const ZELPath& other);

  friend bool operator==(const ZELPath& a, const ZELPath& b) { return a.text_ == b.text_; }
  friend bool operator!=(const ZELPath& a, const ZELPath& b) { return a.text_ != b.text_; }
  friend bool operator<(const ZELPath& a, const ZELPath& b) { return a.text_ < b.text_; }

 private:
  ZELString text_;
};

std::wostream& operator<<(std::wostream& out, const ZELPath& path);
std::ostream& operator<<(std::ostream& out, const ZELPath& path);

// Makes `path` absolute against `base`, or against the current directory when `base` is null.
void MakeAbsolutePath(ZELPath& path, const ZELPath* base);
// Whether the file exists once surrounding blanks and quotes are stripped from the path.
bool TestStrippedFileExists(const ZELPath& path, std::error_code& error);
ZELPath ZELGetCurrentDirectory();
// Last modification time in seconds since the epoch, or 0 when the file cannot be read.
std::int64_t ZELFileLastModif(const ZELPath& path);

namespace zel {

// Normalises a path: '\\' becomes '/', repeated separators collapse, "." components go.
ZELPath Sanitize(ZELPath path);
// Replaces each '?' (left by failed character conversions) with '_'.
ZELPath SanitizeQuestionMark(const ZELPath& path);
// Whether a path is usable as an asset path: no control characters, no '?' or '*'. The empty path (an
// image made in memory has no file) passes. With
// assertOnError a failure is also reported on standard error, as a host's debug assertion would be.
bool CheckAssetPathSanity(const ZELPath& path, bool assertOnError);

// Finds `tag` in `text` the way file tags are recognised: case-sensitive, and a tag counts only where it
// ends the text or is followed by a separator ('_', '-', '.', ' '). Answers the position of the last
// such occurrence, or -1.
int HumanMatch(const ZELString& text, const ZELString& tag);

// Replaces the matches of the ECMAScript regular expression `pattern` in `text` by `replacement`; all
// of them, or only the first when `firstOnly`. Answers whether `text` changed. A malformed pattern
// changes nothing.
bool RegexReplace(ZELString& text, const ZELString& pattern, const ZELString& replacement, bool firstOnly);

}  // namespace zel
