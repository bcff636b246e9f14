// TreeMaker: a tree as people have them, of as many entries as wanted and the same for the same seed: 20 to 60 entries a
// directory, eight levels deep, half of the files small enough to lie within the metadata; links, hard links, attributes.
//
//   TreeMaker maker(1'000'000);
//   maker.make(volume);
//   maker.change(volume, 1'000);  // writes, removals, new files, renames
// Needs root. Threads: thread-compatible. Errors: ends the process with a message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace quillmark::bench {

class TreeMaker final {
 public:
  explicit TreeMaker(std::size_t entries, std::uint64_t seed = 1);

  void make(const std::string& root);
  // So many changes: half of them files written anew, a fifth removed, a fifth made, a tenth renamed, one in ten of these
  // a directory.
  void change(const std::string& root, std::size_t changes);

 private:
  struct Directory {
    std::string path;  // from the root
    unsigned depth = 0;
    std::vector<std::string> files;
  };
  [[nodiscard]] std::uint64_t below(std::uint64_t bound) { return random_() % bound; }
  [[nodiscard]] std::string freshName(bool isDirectory);
  void plan(std::size_t entries);
  void renameDirectory(const std::string& root);
  void fill(const std::string& root, const Directory& directory);
  void writeFile(int directory, const std::string& name, std::size_t size);
  [[nodiscard]] std::size_t someSize();
  [[nodiscard]] Directory& someDirectory();  // one that has files

  std::mt19937_64 random_;
  std::uint64_t serial_ = 0;
  std::vector<Directory> directories_;
};

}  // namespace quillmark::bench
