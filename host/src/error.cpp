// zel::ErrorCode and the internal-error exception.
#include "imagery_host/error.h"

namespace zel {
namespace exception {

InternalError::InternalError(std::string tag, const std::string& detail)
    : std::runtime_error(detail.empty() ? tag : tag + ": " + detail), tag_(std::move(tag)) {}

}  // namespace exception

ErrorCode::ErrorCode(const exception::InternalError& error)
    : kind_(Kind::InternalError), tag_(error.Tag()), message_(error.what()) {}

ErrorCode ErrorCode::Internal(const std::string& tag, const std::string& detail) {
  return ErrorCode(exception::InternalError(tag, detail));
}

ErrorCode ErrorCode::UserCancelled() {
  return ErrorCode(Kind::UserCancel, std::string(), "user cancel");
}

ErrorCode ErrorCode::Io(const std::string& message) {
  return ErrorCode(Kind::IoError, std::string(), message);
}

std::string ErrorCode::ToString() const {
  switch (kind_) {
    case Kind::Ok:
      return "ok";
    case Kind::UserCancel:
      return "user cancel";
    case Kind::InternalError:
    case Kind::IoError:
      return message_;
  }
  return message_;
}

}  // namespace zel
