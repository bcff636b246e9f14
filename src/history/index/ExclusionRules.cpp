#include "history/index/ExclusionRules.h"

#include <algorithm>

namespace quillmark {
namespace {

template <class Text>
std::vector<Text> componentsOf(std::string_view path) {
  std::vector<Text> components;
  for (std::size_t from = 0; from < path.size();) {
    const std::size_t to = std::min(path.find('/', from), path.size());
    if (to > from) components.emplace_back(path.substr(from, to - from));
    from = to + 1;
  }
  return components;
}

template <class Text>
bool matchesARule(std::span<const Text> components, const ExclusionRules& rules) {
  return std::any_of(rules.paths.begin(), rules.paths.end(), [&](const std::vector<std::string>& rule) {
    return std::equal(rule.begin(), rule.end(), components.begin(), components.end(),
                      [](const std::string& wanted, const Text& found) { return wanted == "*" || wanted == found; });
  });
}

}  // namespace

ExclusionRules ExclusionRules::compile(const std::vector<std::string>& excludedPathRules,
                                       const std::vector<std::string>& excludedDirectoryNames,
                                       const std::vector<std::string>& homeDirectories) {
  ExclusionRules rules;
  rules.names.insert(excludedDirectoryNames.begin(), excludedDirectoryNames.end());
  for (const std::string& text : excludedPathRules) {
    if (auto rule = componentsOf<std::string>(text); !rule.empty()) rules.paths.push_back(std::move(rule));
  }
  std::vector<std::vector<std::string>> homes;
  for (const std::string& text : homeDirectories) {
    auto home = componentsOf<std::string>(text);
    if (home.empty() || (home.size() == 2 && home[0] == "Users")) continue;
    homes.push_back(std::move(home));
  }
  // Rules are written for homes under Users; those kept elsewhere are covered by the same.
  for (std::size_t i = 0, written = rules.paths.size(); i < written; ++i) {
    if (rules.paths[i].size() < 2 || rules.paths[i][0] != "Users" || rules.paths[i][1] != "*") continue;
    for (const auto& home : homes) {
      std::vector<std::string> rule = home;
      rule.insert(rule.end(), rules.paths[i].begin() + 2, rules.paths[i].end());
      rules.paths.push_back(std::move(rule));
    }
  }
  return rules;
}

bool isExcludedDirectory(std::string_view name, std::span<const std::string> components, const ExclusionRules& rules) {
  return rules.names.contains(name) || matchesARule(components, rules);
}

bool isExcludedDescendant(std::string_view path, const ExclusionRules& rules) {
  const auto components = componentsOf<std::string_view>(path);
  for (std::size_t length = 1; length < components.size(); ++length) {
    if (rules.names.contains(components[length - 1])) return true;
    if (matchesARule(std::span(components).first(length), rules)) return true;
  }
  return false;
}

}  // namespace quillmark
