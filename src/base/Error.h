// Error: the one carrier of failures, from where they happen to the client that is told.
// Invariant: description is a full sentence for the user and holds no secret.
// Threads:   immutable once thrown.
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <string_view>

namespace quillmark {

class Error : public std::exception {
 public:
  Error(std::string domain, long code, std::string description, std::shared_ptr<const Error> underlying = nullptr);

  [[nodiscard]] const std::string& domain() const { return domain_; }
  [[nodiscard]] long code() const { return code_; }
  [[nodiscard]] const std::string& description() const { return description_; }
  // What the person told can do about it; empty when there is nothing to say.
  [[nodiscard]] const std::string& recoverySuggestion() const { return recoverySuggestion_; }
  // Null when this error is the first of its chain.
  [[nodiscard]] const std::shared_ptr<const Error>& underlying() const { return underlying_; }
  // True when the operation took place all the same, so that nobody must repeat it.
  [[nodiscard]] bool operationCompleted() const { return operationCompleted_; }
  [[nodiscard]] const char* what() const noexcept override { return description_.c_str(); }

  [[nodiscard]] Error withRecoverySuggestion(std::string text) &&;
  [[nodiscard]] Error asOperationCompleted() &&;

 private:
  std::string domain_;
  long code_;
  std::string description_;
  std::string recoverySuggestion_;
  std::shared_ptr<const Error> underlying_;
  bool operationCompleted_ = false;
};

// The domain of errors that are nothing but a failed system call; the code is the errno.
inline constexpr std::string_view posixErrorDomain = "NSPOSIXErrorDomain";

// The C library's sentence for an errno, in the C locale.
[[nodiscard]] std::string errnoText(int error);
// "<operation>(<subject>) failed: <text>" in the POSIX domain.
[[nodiscard]] Error posixError(std::string_view operation, std::string_view subject, int error);
// Any exception as an Error: an Error is itself, another standard one keeps its text.
[[nodiscard]] Error asError(const std::exception& exception);

}  // namespace quillmark
