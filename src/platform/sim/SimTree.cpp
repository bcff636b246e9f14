#include "platform/sim/SimTree.h"

#include <cstdlib>
#include <utility>

namespace quillmark::sim {
namespace {

constexpr std::int64_t firstTimeNS = 1'700'000'000'000'000'000;

std::pair<std::string, std::string> split(const std::string& path) {
  if (path.size() < 2 || path[0] != '/' || path.back() == '/') std::abort();
  const std::size_t slash = path.rfind('/');
  return {path.substr(0, slash), path.substr(slash + 1)};
}

bool isBelow(const std::string& path, const std::string& directory) {
  return path.size() > directory.size() && path.starts_with(directory) && path[directory.size()] == '/';
}

}  // namespace

SimTree::SimTree() {
  auto state = std::make_shared<State>();
  state->root = {
      .inode = 256, .mtimeNS = firstTimeNS, .mode = 0755, .type = FileType::directory, .hasGeneration = true};
  state->directories[""];
  state_ = std::move(state);
}

SimTree::State& SimTree::edit() {
  if (state_.use_count() > 1) state_ = std::make_shared<const State>(*state_);
  return const_cast<State&>(*state_);
}

FileFacts SimTree::fresh(FileType type) {
  State& state = edit();
  const bool isFile = type == FileType::regular;
  ++state.writes;
  return {.inode = state.nextInode++,
          .mtimeNS = firstTimeNS + static_cast<std::int64_t>(state.writes) * 1'000'000'000,
          .generation = isFile ? state.writes : 0,
          .mode = static_cast<std::uint16_t>(type == FileType::directory ? 0755 : 0644),
          .type = type,
          .hasGeneration = true};
}

FileFacts& SimTree::at(const std::string& path) {
  State& state = edit();
  if (path.empty()) return state.root;
  const auto [directory, name] = split(path);
  const auto holder = state.directories.find(directory);
  if (holder == state.directories.end() || !holder->second.contains(name)) std::abort();
  return holder->second.at(name);
}

void SimTree::makeDirectory(const std::string& path) {
  if (children(path)) return;
  put(path, fresh(FileType::directory));
}

void SimTree::write(const std::string& path, std::int64_t size) {
  FileFacts facts = fresh(FileType::regular);
  facts.size = size;
  if (size == 0) facts.generation = 0;
  if (const FileFacts* before = find(path)) {
    FileFacts now = *before;
    now.size = size, now.mtimeNS = facts.mtimeNS, now.generation = facts.generation;
    facts = now;
  }
  put(path, facts);
}

void SimTree::makeLink(const std::string& path) { put(path, fresh(FileType::symlink)); }

void SimTree::link(const std::string& from, const std::string& to) { put(to, at(from)); }

void SimTree::put(const std::string& path, FileFacts facts) {
  const auto [directory, name] = split(path);
  if (!directory.empty()) makeDirectory(directory);
  State& state = edit();
  if (facts.inode == 0) facts.inode = state.nextInode++;
  state.directories[directory][name] = facts;
  if (facts.type == FileType::directory) state.directories[path];
}

void SimTree::change(const std::string& path, FileFacts facts) { at(path) = facts; }

void SimTree::rename(const std::string& from, const std::string& to) {
  const FileFacts facts = at(from);
  State& state = edit();
  std::map<std::string, Children> moved;
  for (auto each = state.directories.begin(); each != state.directories.end();) {
    const auto current = each++;
    if (current->first != from && !isBelow(current->first, from)) continue;
    moved[to + current->first.substr(from.size())] = std::move(current->second);
    state.directories.erase(current);
  }
  const auto [directory, name] = split(from);
  state.directories.at(directory).erase(name);
  put(to, facts);
  for (auto& [path, below] : moved) edit().directories[path] = std::move(below);
}

void SimTree::remove(const std::string& path) {
  (void)at(path);
  State& state = edit();
  std::erase_if(state.directories, [&](const auto& each) { return each.first == path || isBelow(each.first, path); });
  const auto [directory, name] = split(path);
  state.directories.at(directory).erase(name);
}

const FileFacts* SimTree::find(const std::string& path) const {
  if (path.empty()) return &state_->root;
  const auto [directory, name] = split(path);
  const Children* holder = children(directory);
  if (!holder) return nullptr;
  const auto found = holder->find(name);
  return found == holder->end() ? nullptr : &found->second;
}

const SimTree::Children* SimTree::children(const std::string& directory) const {
  const auto found = state_->directories.find(directory);
  return found == state_->directories.end() ? nullptr : &found->second;
}

}  // namespace quillmark::sim
