// What a piece of work fails with.
#pragma once

#include <gtest/gtest.h>

#include "base/Error.h"
#include "base/FunctionRef.h"

namespace quillmark {

// The error that the work has to throw.
[[nodiscard]] inline Error failureOf(FunctionRef<void()> work) {
  try {
    work();
  } catch (const Error& error) {
    return error;
  }
  ADD_FAILURE() << "nothing was thrown";
  return Error("", 0, "");
}

// The description of the error that the work throws; empty when it throws none.
[[nodiscard]] inline std::string complaintOf(FunctionRef<void()> work) {
  try {
    work();
  } catch (const Error& error) {
    return error.description();
  }
  return "";
}

}  // namespace quillmark
