// ZELPath, the file-system queries behind it, path sanitising and the file-tag matching rules.
#include "imagery_host/zel_path.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

// With sanitizers on, GCC 12 reports a false -Wmaybe-uninitialized from inside <regex>.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace {

bool IsSeparator(wchar_t c) {
  return c == L'/' || c == L'\\';
}

std::size_t LastSeparator(const std::wstring& text) {
  return text.find_last_of(L"/\\");
}

bool IsControl(wchar_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F);
}

boost::filesystem::path NativePath(const ZELPath& path) {
  return boost::filesystem::path(path.local_string());
}

// The path for a diagnostic line: control characters are shown as \xNN so that they cannot garble the
// terminal that shows the message.
std::string Printable(const ZELPath& path) {
  std::wstring shown;
  for (wchar_t c : path.GetString().wstr()) {
    if (IsControl(c)) {
      wchar_t escaped[8];
      std::swprintf(escaped, 8, L"\\x%02x", static_cast<unsigned>(c));
      shown += escaped;
    } else {
      shown += c;
    }
  }
  return ZELString(shown).ToUTF8();
}

}  // namespace

ZELPath::ZELPath(const ZELString& text) : text_(text) {}

ZELPath::ZELPath(const wchar_t* text) : text_(text) {}

std::string ZELPath::local_string() const {
  return text_.ToUTF8();
}

ZELString ZELPath::leaf() const {
  const std::wstring& text = text_.wstr();
  const std::size_t separator = LastSeparator(text);
  return separator == std::wstring::npos ? text_ : ZELString(text.substr(separator + 1));
}

ZELString ZELPath::leaf_without_extension() const {
  const ZELString name = leaf();
  return name.Left(name.GetLength() - extension().GetLength());
}

ZELString ZELPath::extension() const {
  const ZELString name = leaf();
  const std::wstring& text = name.wstr();
  // A leading dot names a hidden file (".profile") rather than starting an extension; ".." is a folder.
  if (text == L"..") {
    return ZELString();
  }
  const std::size_t dot = text.rfind(L'.');
  return dot == std::wstring::npos || dot == 0 ? ZELString() : ZELString(text.substr(dot));
}

ZELPath ZELPath::parent_path() const {
  const std::wstring& text = text_.wstr();
  std::size_t end = LastSeparator(text);
  if (end == std::wstring::npos) {
    return ZELPath();
  }
  // "a//b" has the parent "a"; a path made only of a root keeps it ("/b" has the parent "/").
  while (end > 0 && IsSeparator(text[end - 1])) {
    --end;
  }
  return ZELPath(ZELString(text.substr(0, end == 0 ? 1 : end)));
}

bool ZELPath::is_absolute() const {
  const std::wstring& text = text_.wstr();
  if (text.empty()) {
    return false;
  }
  if (IsSeparator(text[0])) {
    return true;
  }
  // A drive-letter path written on another system ("C:/maps/brick.png") is not relative to anything here.
  const bool letter = (text[0] >= L'A' && text[0] <= L'Z') || (text[0] >= L'a' && text[0] <= L'z');
  return text.size() >= 3 && letter && text[1] == L':' && IsSeparator(text[2]);
}

bool ZELPath::exists(std::error_code& error) const {
  error.clear();
  if (empty()) {
    return false;
  }
  boost::system::error_code failure;
  const boost::filesystem::file_status status = boost::filesystem::status(NativePath(*this), failure);
  // A missing file comes with an error code as well; it is an answer, not a failure to find one.
  if (status.type() == boost::filesystem::file_not_found) {
    return false;
  }
  if (failure) {
    error = failure;
    return false;
  }
  return status.type() != boost::filesystem::status_error;
}

ZELPath ZELPath::operator/(const ZELPath& other) const {
  ZELPath joined(*this);
  joined /= other;
  return joined;
}

ZELPath& ZELPath::operator/=(const ZELPath& other) {
  if (other.empty()) {
    return *this;
  }
  if (empty()) {
    text_ = other.text_;
    return *this;
  }
  std::wstring& text = text_.wstr();
  while (!text.empty() && IsSeparator(text.back())) {
    text.pop_back();
  }
  const std::wstring& tail = other.text_.wstr();
  std::size_t first = 0;
  while (first < tail.size() && IsSeparator(tail[first])) {
    ++first;
  }
  text += L'/';
  text.append(tail, first, std::wstring::npos);
  return *this;
}

std::wostream& operator<<(std::wostream& out, const ZELPath& path) {
  return out << path.GetString();
}

std::ostream& operator<<(std::ostream& out, const ZELPath& path) {
  return out << path.GetString();
}

void MakeAbsolutePath(ZELPath& path, const ZELPath* base) {
  if (path.empty() || path.is_absolute()) {
    return;
  }
  ZELPath root = base ? *base : ZELGetCurrentDirectory();
  if (base && !root.is_absolute()) {
    MakeAbsolutePath(root, nullptr);
  }
  path = root / path;
}

bool TestStrippedFileExists(const ZELPath& path, std::error_code& error) {
  const std::wstring& text = path.GetString().wstr();
  const wchar_t* const strip = L" \t\r\n\"'";
  const std::size_t first = text.find_first_not_of(strip);
  if (first == std::wstring::npos) {
    error.clear();
    return false;
  }
  const std::size_t last = text.find_last_not_of(strip);
  return ZELPath(ZELString(text.substr(first, last - first + 1))).exists(error);
}

ZELPath ZELGetCurrentDirectory() {
  boost::system::error_code error;
  const boost::filesystem::path current = boost::filesystem::current_path(error);
  if (error) {
    return ZELPath();
  }
  return ZELPath(ZELString::FromUTF8(current.string()));
}

std::int64_t ZELFileLastModif(const ZELPath& path) {
  if (path.empty()) {
    return 0;
  }
  boost::system::error_code error;
  const std::time_t time = boost::filesystem::last_write_time(NativePath(path), error);
  return error ? 0 : static_cast<std::int64_t>(time);
}

namespace zel {

ZELPath Sanitize(ZELPath path) {
  const std::wstring& text = path.GetString().wstr();
  if (text.empty()) {
    return path;
  }
  const bool rooted = IsSeparator(text.front());
  const bool folder = text.size() > 1 && IsSeparator(text.back());
  std::vector<std::wstring> parts;
  std::size_t begin = 0;
  while (begin <= text.size()) {
    std::size_t end = text.find_first_of(L"/\\", begin);
    if (end == std::wstring::npos) {
      end = text.size();
    }
    std::wstring part = text.substr(begin, end - begin);
    if (!part.empty() && part != L".") {
      parts.push_back(std::move(part));
    }
    begin = end + 1;
  }
  if (parts.empty()) {
    // Nothing but "." and separators: keep the path meaning "here" rather than turning it into no path.
    return ZELPath(ZELString(rooted ? L"/" : L"."));
  }
  std::wstring result = rooted ? L"/" : L"";
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) {
      result += L'/';
    }
    result += parts[i];
  }
  if (folder) {
    result += L'/';
  }
  return ZELPath(ZELString(std::move(result)));
}

ZELPath SanitizeQuestionMark(const ZELPath& path) {
  std::wstring text = path.GetString().wstr();
  for (wchar_t& c : text) {
    if (c == L'?') {
      c = L'_';
    }
  }
  return ZELPath(ZELString(std::move(text)));
}

bool CheckAssetPathSanity(const ZELPath& path, bool assertOnError) {
  const char* problem = nullptr;
  for (wchar_t c : path.GetString().wstr()) {
    if (IsControl(c)) {
      problem = "control character in path";
      break;
    }
    if (c == L'?' || c == L'*') {
      problem = "wildcard character in path";
      break;
    }
  }
  if (problem && assertOnError) {
    std::cerr << "asset path check failed: " << problem << ": \"" << Printable(path) << "\"\n";
  }
  return problem == nullptr;
}

int HumanMatch(const ZELString& text, const ZELString& tag) {
  const std::wstring& haystack = text.wstr();
  const std::wstring& needle = tag.wstr();
  if (needle.empty() || needle.size() > haystack.size()) {
    return -1;
  }
  auto isTagEnd = [](wchar_t c) { return c == L'_' || c == L'-' || c == L'.' || c == L' '; };
  std::size_t position = haystack.rfind(needle);
  while (position != std::wstring::npos) {
    const std::size_t end = position + needle.size();
    if (end == haystack.size() || isTagEnd(haystack[end])) {
      return static_cast<int>(position);
    }
    if (position == 0) {
      break;
    }
    position = haystack.rfind(needle, position - 1);
  }
  return -1;
}

bool RegexReplace(ZELString& text, const ZELString& pattern, const ZELString& replacement, bool firstOnly) {
  try {
    const std::wregex expression(pattern.wstr(), std::regex_constants::ECMAScript);
    const auto flags =
        firstOnly ? std::regex_constants::format_first_only : std::regex_constants::format_default;
    std::wstring replaced = std::regex_replace(text.wstr(), expression, replacement.wstr(), flags);
    if (replaced == text.wstr()) {
      return false;
    }
    text.wstr() = std::move(replaced);
    return true;
  } catch (const std::regex_error&) {
    // Malformed patterns, and patterns too complex for the matcher, leave the text alone.
    return false;
  }
}

}  // namespace zel
