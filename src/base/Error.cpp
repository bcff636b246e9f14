#include "base/Error.h"

#include <fmt/format.h>

#include <cstring>

namespace quillmark {

Error::Error(std::string domain, long code, std::string description, std::shared_ptr<const Error> underlying)
    : domain_(std::move(domain)), code_(code), description_(std::move(description)),
      underlying_(std::move(underlying)) {}

Error Error::withRecoverySuggestion(std::string text) && {
  recoverySuggestion_ = std::move(text);
  return std::move(*this);
}

Error Error::asOperationCompleted() && {
  operationCompleted_ = true;
  return std::move(*this);
}

std::string errnoText(int error) {
  const char* text = strerrordesc_np(error);
  return text ? text : fmt::format("Unknown error {}", error);
}

Error posixError(std::string_view operation, std::string_view subject, int error) {
  return Error(std::string(posixErrorDomain), error,
               fmt::format("{}({}) failed: {}", operation, subject, errnoText(error)));
}

Error asError(const std::exception& exception) {
  if (const auto* error = dynamic_cast<const Error*>(&exception)) return *error;
  return Error("NSCocoaErrorDomain", 4864, exception.what());
}

}  // namespace quillmark
