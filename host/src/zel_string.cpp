// ZELString: UTF-8 conversion, locale-independent formatting and the editing operations.
#include "imagery_host/zel_string.h"

#include <locale.h>
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cwchar>
#include <cwctype>
#include <ostream>
#include <type_traits>

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kMaxCodePoint = 0x10FFFF;

bool IsSurrogate(char32_t c) {
  return c >= 0xD800 && c <= 0xDFFF;
}
bool IsHighSurrogate(char32_t c) {
  return c >= 0xD800 && c <= 0xDBFF;
}
bool IsLowSurrogate(char32_t c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}

void AppendCodePoint(std::wstring& out, char32_t c) {
  if constexpr (sizeof(wchar_t) >= 4) {
    out += static_cast<wchar_t>(c);
  } else {
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<wchar_t>(0xD800 + (c >> 10));
      out += static_cast<wchar_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<wchar_t>(c);
    }
  }
}

void AppendUTF8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// A C locale whose character type is UTF-8: case mapping and the %s conversion of Format then behave
// the same whatever locale the host process has set. Null if the C library cannot provide it.
locale_t Utf8CTypeLocale() {
  static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  return locale;
}

wchar_t ToLowerChar(wchar_t c) {
  const locale_t locale = Utf8CTypeLocale();
  return static_cast<wchar_t>(locale ? towlower_l(static_cast<wint_t>(c), locale)
                                     : towlower(static_cast<wint_t>(c)));
}

wchar_t ToUpperChar(wchar_t c) {
  const locale_t locale = Utf8CTypeLocale();
  return static_cast<wchar_t>(locale ? towupper_l(static_cast<wint_t>(c), locale)
                                     : towupper(static_cast<wint_t>(c)));
}

int Sign(int value) {
  return (value > 0) - (value < 0);
}

// Clamps a caller's int position to [0, size].
std::size_t ClampPosition(int position, std::size_t size) {
  if (position <= 0) {
    return 0;
  }
  return std::min(static_cast<std::size_t>(position), size);
}

// Switches the calling thread to the UTF-8 C locale for the lifetime of the guard.
class ThreadLocaleGuard {
 public:
  explicit ThreadLocaleGuard(locale_t locale) : previous_(locale ? uselocale(locale) : nullptr) {}
  ~ThreadLocaleGuard() {
    if (previous_) {
      uselocale(previous_);
    }
  }
  ThreadLocaleGuard(const ThreadLocaleGuard&) = delete;
  ThreadLocaleGuard& operator=(const ThreadLocaleGuard&) = delete;

 private:
  locale_t previous_;
};

}  // namespace

ZELString::ZELString(const wchar_t* text) : text_(text ? text : L"") {}

ZELString::ZELString(const wchar_t* text, std::size_t count)
    : text_(text ? std::wstring(text, count) : std::wstring()) {}

ZELString::ZELString(std::wstring text) : text_(std::move(text)) {}

ZELString::ZELString(std::size_t count, wchar_t fill) : text_(count, fill) {}

ZELString ZELString::FromUTF8(std::string_view utf8) {
  std::wstring out;
  out.reserve(utf8.size());
  const std::size_t size = utf8.size();
  std::size_t i = 0;
  while (i < size) {
    const auto lead = static_cast<unsigned char>(utf8[i]);
    if (lead < 0x80) {
      out += static_cast<wchar_t>(lead);
      ++i;
      continue;
    }
    std::size_t length = 0;
    char32_t c = 0;
    // The accepted range of the second byte excludes overlong forms, surrogates and values past U+10FFFF,
    // so that each maximal invalid prefix becomes exactly one replacement character.
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
      c = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      c = lead & 0x0F;
      if (lead == 0xE0) {
        low = 0xA0;
      } else if (lead == 0xED) {
        high = 0x9F;
      }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      c = lead & 0x07;
      if (lead == 0xF0) {
        low = 0x90;
      } else if (lead == 0xF4) {
        high = 0x8F;
      }
    } else {
      out += static_cast<wchar_t>(kReplacement);
      ++i;
      continue;
    }
    std::size_t consumed = 1;
    bool valid = true;
    for (; consumed < length; ++consumed) {
      if (i + consumed >= size) {
        valid = false;
        break;
      }
      const auto next = static_cast<unsigned char>(utf8[i + consumed]);
      const unsigned char min = consumed == 1 ? low : 0x80;
      const unsigned char max = consumed == 1 ? high : 0xBF;
      if (next < min || next > max) {
        valid = false;
        break;
      }
      c = (c << 6) | (next & 0x3F);
    }
    AppendCodePoint(out, valid ? c : kReplacement);
    i += consumed;
  }
  return ZELString(std::move(out));
}

std::string ZELString::ToUTF8() const {
  std::string out;
  out.reserve(text_.size());
  for (std::size_t i = 0; i < text_.size(); ++i) {
    // wchar_t is signed on some platforms; go through its unsigned twin so that negative values do not
    // sign-extend into something that looks valid.
    char32_t c = static_cast<std::make_unsigned_t<wchar_t>>(text_[i]);
    if (IsHighSurrogate(c) && i + 1 < text_.size()) {
      const char32_t next = static_cast<std::make_unsigned_t<wchar_t>>(text_[i + 1]);
      if (IsLowSurrogate(next)) {
        c = 0x10000 + ((c - 0xD800) << 10) + (next - 0xDC00);
        ++i;
      }
    }
    if (IsSurrogate(c) || c > kMaxCodePoint) {
      c = kReplacement;
    }
    AppendUTF8(out, c);
  }
  return out;
}

ZELString ZELString::Format(const wchar_t* format, ...) {
  if (!format) {
    return ZELString();
  }
  // Longer results are refused rather than grown into: a width such as %999999999d is a mistake.
  constexpr std::size_t kMaxLength = std::size_t{1} << 24;
  ThreadLocaleGuard localeGuard(Utf8CTypeLocale());
  std::wstring buffer(256, L'\0');
  for (;;) {
    va_list arguments;
    va_start(arguments, format);
    errno = 0;
    const int written = std::vswprintf(buffer.data(), buffer.size(), format, arguments);
    const int error = errno;
    va_end(arguments);
    if (written >= 0) {
      buffer.resize(static_cast<std::size_t>(written));
      return ZELString(std::move(buffer));
    }
    // vswprintf answers -1 both for a short buffer and for a narrow argument that is not valid UTF-8;
    // only the first is worth another try.
    if (error == EILSEQ || buffer.size() >= kMaxLength) {
      return ZELString();
    }
    buffer.assign(buffer.size() * 4, L'\0');
  }
}

std::vector<ZELString> ZELString::TokenizeMe(wchar_t separator, int start, bool keepEmpty) const {
  std::vector<ZELString> pieces;
  std::size_t begin = ClampPosition(start, text_.size());
  for (;;) {
    const std::size_t end = text_.find(separator, begin);
    const std::size_t stop = end == std::wstring::npos ? text_.size() : end;
    if (keepEmpty || stop > begin) {
      pieces.emplace_back(text_.substr(begin, stop - begin));
    }
    if (end == std::wstring::npos) {
      break;
    }
    begin = end + 1;
  }
  return pieces;
}

ZELString& ZELString::Insert(int position, const ZELString& text) {
  if (position < 0 || static_cast<std::size_t>(position) > text_.size()) {
    text_ += text.text_;
  } else {
    text_.insert(static_cast<std::size_t>(position), text.text_);
  }
  return *this;
}

ZELString& ZELString::Delete(int position, int count) {
  if (count <= 0) {
    return *this;
  }
  // 64-bit arithmetic: position + count can overflow an int.
  const std::int64_t first = std::max<std::int64_t>(position, 0);
  const std::int64_t last =
      std::min<std::int64_t>(std::int64_t{position} + count, static_cast<std::int64_t>(text_.size()));
  if (last > first) {
    text_.erase(static_cast<std::size_t>(first), static_cast<std::size_t>(last - first));
  }
  return *this;
}

ZELString& ZELString::TrimLeft(wchar_t character) {
  const std::size_t first = text_.find_first_not_of(character);
  text_.erase(0, first == std::wstring::npos ? text_.size() : first);
  return *this;
}

ZELString& ZELString::TrimRight(wchar_t character) {
  const std::size_t last = text_.find_last_not_of(character);
  text_.erase(last == std::wstring::npos ? 0 : last + 1);
  return *this;
}

ZELString& ZELString::Trim() {
  auto isSpace = [](wchar_t c) { return std::iswspace(static_cast<wint_t>(c)) != 0; };
  const auto last = std::find_if_not(text_.rbegin(), text_.rend(), isSpace).base();
  text_.erase(last, text_.end());
  text_.erase(text_.begin(), std::find_if_not(text_.begin(), text_.end(), isSpace));
  return *this;
}

ZELString& ZELString::MakeLower() {
  std::transform(text_.begin(), text_.end(), text_.begin(), ToLowerChar);
  return *this;
}

ZELString& ZELString::MakeUpper() {
  std::transform(text_.begin(), text_.end(), text_.begin(), ToUpperChar);
  return *this;
}

int ZELString::Find(const ZELString& text, int start) const {
  if (start > GetLength()) {
    return -1;
  }
  const std::size_t found = text_.find(text.text_, ClampPosition(start, text_.size()));
  return found == std::wstring::npos ? -1 : static_cast<int>(found);
}

int ZELString::Find(wchar_t character, int start) const {
  const std::size_t found = text_.find(character, ClampPosition(start, text_.size()));
  return found == std::wstring::npos ? -1 : static_cast<int>(found);
}

int ZELString::ReverseFind(wchar_t character) const {
  const std::size_t found = text_.rfind(character);
  return found == std::wstring::npos ? -1 : static_cast<int>(found);
}

ZELString ZELString::Left(int count) const {
  return ZELString(text_.substr(0, ClampPosition(count, text_.size())));
}

ZELString ZELString::Right(int count) const {
  const std::size_t length = ClampPosition(count, text_.size());
  return ZELString(text_.substr(text_.size() - length));
}

ZELString ZELString::Mid(int first, int count) const {
  const std::size_t begin = ClampPosition(first, text_.size());
  const std::size_t available = text_.size() - begin;
  const std::size_t length = count < 0 ? available : std::min(available, static_cast<std::size_t>(count));
  return ZELString(text_.substr(begin, length));
}

bool ZELString::StartsWith(const ZELString& prefix) const {
  return text_.size() >= prefix.text_.size() && text_.compare(0, prefix.text_.size(), prefix.text_) == 0;
}

bool ZELString::EndsWith(const ZELString& suffix) const {
  return text_.size() >= suffix.text_.size() &&
         text_.compare(text_.size() - suffix.text_.size(), suffix.text_.size(), suffix.text_) == 0;
}

int ZELString::Compare(const ZELString& other) const {
  return Sign(text_.compare(other.text_));
}

int ZELString::CompareNoCase(const ZELString& other) const {
  const std::size_t common = std::min(text_.size(), other.text_.size());
  for (std::size_t i = 0; i < common; ++i) {
    const wchar_t a = ToLowerChar(text_[i]);
    const wchar_t b = ToLowerChar(other.text_[i]);
    if (a != b) {
      return a < b ? -1 : 1;
    }
  }
  if (text_.size() == other.text_.size()) {
    return 0;
  }
  return text_.size() < other.text_.size() ? -1 : 1;
}

ZELString& ZELString::operator+=(const ZELString& other) {
  text_ += other.text_;
  return *this;
}

ZELString& ZELString::operator+=(wchar_t character) {
  text_ += character;
  return *this;
}

std::wostream& operator<<(std::wostream& out, const ZELString& text) {
  return out << text.wstr();
}

std::ostream& operator<<(std::ostream& out, const ZELString& text) {
  return out << text.ToUTF8();
}
