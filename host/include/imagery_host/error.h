// Error values of the host layer: zel::ErrorCode (what loads and streams report) and the exceptions that
// are turned into error codes at once (zel::exception::InternalError carrying a tag such as "IMGRD1124").
#pragma once

#include <stdexcept>
#include <string>

namespace zel {
namespace exception {

// An internal error identified by a short tag ("IMGRY115", "IMGRD1124", ...). The tag is the what() text
// unless a detail is given, in which case what() reads "tag: detail".
class InternalError : public std::runtime_error {
 public:
  explicit InternalError(std::string tag, const std::string& detail = std::string());
  const std::string& Tag() const noexcept { return tag_; }

 private:
  std::string tag_;
};

}  // namespace exception

// The result of a load or stream operation. A default-constructed code is good. Codes are small values,
// freely copied; equality compares kind and tag.
class ErrorCode {
 public:
  enum class Kind { Ok, InternalError, UserCancel, IoError };

  ErrorCode() = default;
  explicit ErrorCode(const exception::InternalError& error);

  static ErrorCode Internal(const std::string& tag, const std::string& detail = std::string());
  static ErrorCode UserCancelled();
  static ErrorCode Io(const std::string& message);

  bool IsOk() const { return kind_ == Kind::Ok; }
  bool IsBad() const { return kind_ != Kind::Ok; }
  Kind GetKind() const { return kind_; }
  // The internal-error tag; empty for other kinds.
  const std::string& Tag() const { return tag_; }
  const std::string& Message() const { return message_; }
  // "ok", "user cancel", the tag (with its detail), or the I/O message.
  std::string ToString() const;

  friend bool operator==(const ErrorCode& a, const ErrorCode& b) {
    return a.kind_ == b.kind_ && a.tag_ == b.tag_;
  }
  friend bool operator!=(const ErrorCode& a, const ErrorCode& b) { return !(a == b); }

 private:
  ErrorCode(Kind kind, std::string tag, std::string message)
      : kind_(kind), tag_(std::move(tag)), message_(std::move(message)) {}

  Kind kind_ = Kind::Ok;
  std::string tag_;
  std::string message_;
};

// True for the code of an operation the user cancelled, which callers may treat as success.
inline bool IsUserCancel(const ErrorCode& code) {
  return code.GetKind() == ErrorCode::Kind::UserCancel;
}

}  // namespace zel
