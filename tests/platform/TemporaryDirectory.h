// TemporaryDirectory: an empty directory, gone with this and all that is in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace quillmark {

class TemporaryDirectory final {
 public:
  TemporaryDirectory() {
    if (!::mkdtemp(path_.data())) std::abort();
  }
  ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_ = std::filesystem::temp_directory_path() / "quillmark-test-XXXXXX";
};

}  // namespace quillmark
