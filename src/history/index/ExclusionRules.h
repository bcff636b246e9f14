// ExclusionRules: the compiled form of what is left out of trees. A rule matches directories of one exact depth; an
// excluded directory keeps its own entry and isn't entered.
// Threads: immutable once made.
#pragma once

#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quillmark {

struct ExclusionRules {
  std::set<std::string, std::less<>> names;     // directory names, wherever they occur
  std::vector<std::vector<std::string>> paths;  // components; "*" alone matches any one

  [[nodiscard]] static ExclusionRules compile(const std::vector<std::string>& excludedPathRules,
                                              const std::vector<std::string>& excludedDirectoryNames,
                                              const std::vector<std::string>& homeDirectories);
};

// Components from the root, the directory's own name last.
[[nodiscard]] bool isExcludedDirectory(std::string_view name, std::span<const std::string> components,
                                       const ExclusionRules& rules);
// True below an excluded directory, false for its own entry.
[[nodiscard]] bool isExcludedDescendant(std::string_view path, const ExclusionRules& rules);

}  // namespace quillmark
