#include "platform/sim/SimPosixDurability.h"

#include <algorithm>
#include <random>

namespace quillmark::sim {
namespace {

constexpr std::size_t blockBytes = 512;

std::pair<std::string, std::string> split(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {"", path};
  return {path.substr(0, slash), path.substr(slash + 1)};
}

std::string joined(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "/" + name;
}

// Copies a graph in which a node may be reached by several ways.
class Copier final {
 public:
  SimNode::Ref operator()(const SimNode::Ref& node) {
    if (!node) return nullptr;
    const auto [place, isNew] = copies_.try_emplace(node.get());
    if (!isNew) return place->second;
    auto copy = place->second = std::make_shared<SimNode>(*node);
    for (auto& [name, child] : copy->names) child = (*this)(child);
    for (auto& [name, child] : copy->durableNames) child = (*this)(child);
    return copy;
  }

 private:
  std::map<const SimNode*, SimNode::Ref> copies_;
};

// The choices of one power cut.
class Cut final {
 public:
  explicit Cut(std::uint64_t seed) : engine_(seed) {}

  [[nodiscard]] bool coin() { return (engine_() >> 32 & 1) != 0; }
  // Between the two, both included.
  [[nodiscard]] std::size_t between(std::size_t low, std::size_t high) { return low + engine_() % (high - low + 1); }

  [[nodiscard]] SimNode::State stateOf(const SimNode& node, SimNode::State live) {
    if (node.byWrites) {
      SimNode::State state = node.durable;
      if (coin()) state = std::move(live);
      state.content = withSomeOf(node.unsynced, node.durable.content);
      return state;
    }
    if (!node.everSynced) {
      live.content = contents({}, std::move(live.content), 0);
      return live;
    }
    SimNode::State state = coin() ? live : node.durable;
    state.content = contents(node.durable.content, std::move(live.content), node.changedFrom);
    return state;
  }

 private:
  std::string contents(const std::string& durable, std::string live, std::size_t changedFrom) {
    const std::size_t same = std::min({changedFrom, durable.size(), live.size()});
    const bool unchanged = same == durable.size() && same == live.size() && changedFrom >= same;
    if (unchanged) return live;
    const std::size_t reached = between(same, live.size());
    switch (between(0, 4)) {
      case 0: return durable;
      case 1: return live;
      case 2: return live.substr(0, reached);
      case 3: std::fill(live.begin() + static_cast<std::ptrdiff_t>(reached), live.end(), '\0'); return live;
      default: return mixed(durable, std::move(live), same);
    }
  }

  // Any of the blocks written since the sync, in no order of theirs.
  std::string withSomeOf(const std::vector<SimNode::Write>& writes, std::string content) {
    const std::size_t share = between(0, 4);  // in quarters: the disk may have got nothing, or all
    const auto reached = [&] { return between(1, 4) <= share; };
    for (const SimNode::Write& write : writes) {
      if (write.truncates) {
        if (reached()) content.resize(write.at);
        continue;
      }
      for (std::size_t from = 0; from < write.bytes.size(); from += blockBytes) {
        if (!reached()) continue;
        const std::size_t length = std::min(blockBytes, write.bytes.size() - from);
        content.resize(std::max(content.size(), write.at + from + length));
        content.replace(write.at + from, length, write.bytes, from, length);
      }
    }
    return content;
  }

  std::string mixed(const std::string& durable, std::string live, std::size_t from) {
    std::string old = durable;
    old.resize(live.size(), '\0');
    for (std::size_t at = from; at < live.size(); at += blockBytes) {
      if (coin()) continue;
      const std::size_t length = std::min(blockBytes, live.size() - at);
      live.replace(at, length, old, at, length);
    }
    return live;
  }

  std::mt19937_64 engine_;
};

}  // namespace

SimDurability::SimDurability() : root_(std::make_shared<SimNode>()) { root_->directory = true; }

SimDurability::SimDurability(const SimDurability& other) : changes_(other.changes_) {
  Copier copy;
  root_ = copy(other.root_);
  for (Change& change : changes_) {
    for (Entry& entry : change.entries) {
      entry.directory = copy(entry.directory);
      entry.node = copy(entry.node);
    }
  }
}

SimNode::Ref SimDurability::find(const std::string& path) const {
  SimNode::Ref node = root_;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t slash = std::min(path.find('/', at), path.size());
    const auto found = node->names.find(path.substr(at, slash - at));
    if (found == node->names.end()) return nullptr;
    node = found->second;
    at = slash + 1;
  }
  return node;
}

void SimDurability::walk(FunctionRef<void(const std::string&, const SimNode::Ref&)> visit) const {
  std::deque<std::pair<std::string, SimNode::Ref>> left{{"", root_}};
  while (!left.empty()) {
    const auto [path, node] = left.front();
    left.pop_front();
    if (node != root_) visit(path, node);
    for (const auto& [name, child] : node->names) left.emplace_back(joined(path, name), child);
  }
}

SimNode::Ref SimDurability::made(const std::string& path, bool directory, Date now) {
  auto node = std::make_shared<SimNode>();
  node->directory = directory;
  node->modified = node->changed = now;
  const auto [parent, name] = split(path);
  change({{{find(parent), name, node}}});
  return node;
}

void SimDurability::removed(const std::string& path, SimNode::State last) {
  const auto [parent, name] = split(path);
  if (const SimNode::Ref node = find(path)) node->buried = std::move(last);
  change({{{find(parent), name, nullptr}}});
}

void SimDurability::renamed(const std::string& from, const std::string& to, SimNode::State replaced) {
  const SimNode::Ref moved = find(from);
  const SimNode::Ref target = find(to);
  if (moved == target) return;
  if (target) target->buried = std::move(replaced);
  const auto [fromParent, fromName] = split(from);
  const auto [toParent, toName] = split(to);
  change({{{find(fromParent), fromName, nullptr}, {find(toParent), toName, moved}}});
}

void SimDurability::contentsChanged(SimNode& node, std::size_t from) {
  node.changedFrom = std::min(node.changedFrom, from);
}

void SimDurability::synced(SimNode& node, SimNode::State now) {
  std::string content = std::move(node.durable.content);
  content.resize(std::min(node.changedFrom, content.size()));
  content += now.content;
  now.content = std::move(content);
  node.durable = std::move(now);
  node.everSynced = true;
  node.changedFrom = node.durable.content.size();
  node.unsynced.clear();
}

bool SimDurability::Change::safe() const {
  return std::all_of(entries.begin(), entries.end(), [](const Entry& entry) { return entry.synced; });
}

void SimDurability::namesSynced(const SimNode::Ref& directory) {
  for (Change& change : changes_) {
    for (Entry& entry : change.entries) entry.synced |= entry.directory == directory;
  }
  settle();
}

namespace {

void apply(std::map<std::string, SimNode::Ref>& names, const std::string& name, const SimNode::Ref& node) {
  if (node) {
    names[name] = node;
  } else {
    names.erase(name);
  }
}

}  // namespace

void SimDurability::change(Change change) {
  for (const Entry& entry : change.entries) apply(entry.directory->names, entry.name, entry.node);
  changes_.push_back(std::move(change));
}

void SimDurability::settle() {
  while (!changes_.empty() && changes_.front().safe()) {
    for (const Entry& entry : changes_.front().entries) apply(entry.directory->durableNames, entry.name, entry.node);
    changes_.pop_front();
  }
}

void SimDurability::everythingSynced(ReadState read) {
  walk([&](const std::string& path, const SimNode::Ref& node) {
    if (node->directory) return;
    node->changedFrom = 0;
    synced(*node, read(path));
  });
  for (Change& change : changes_) {
    for (Entry& entry : change.entries) entry.synced = true;
  }
  settle();
}

std::vector<SimDurability::Survivor> SimDurability::afterPowerCut(std::uint64_t seed, ReadState read) const {
  Cut cut(seed);
  std::map<const SimNode*, std::string> livePaths;
  walk([&](const std::string& path, const SimNode::Ref& node) { livePaths[node.get()] = path; });

  // The disk's names: the certain ones, then in their order the changes that reached it.
  std::map<const SimNode*, std::map<std::string, SimNode::Ref>> disk;
  const auto namesOf = [&](const SimNode& node) -> auto& {
    return disk.try_emplace(&node, node.durableNames).first->second;
  };
  for (const Change& change : changes_) {
    if (!change.safe() && !cut.coin()) continue;
    for (const Entry& entry : change.entries) apply(namesOf(*entry.directory), entry.name, entry.node);
  }

  std::vector<Survivor> survivors;
  std::deque<std::pair<std::string, SimNode::Ref>> left{{"", root_}};
  while (!left.empty()) {
    const auto [path, node] = left.front();
    left.pop_front();
    if (node != root_) {
      const auto live = livePaths.find(node.get());
      SimNode::State now = live != livePaths.end() ? read(live->second) : node->buried.value_or(node->durable);
      survivors.push_back({path, node, node->directory ? now : cut.stateOf(*node, std::move(now))});
    }
    for (const auto& [name, child] : namesOf(*node)) left.emplace_back(joined(path, name), child);
  }
  return survivors;
}

}  // namespace quillmark::sim
