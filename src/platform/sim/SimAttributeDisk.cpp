#include "platform/sim/SimAttributeDisk.h"

#include <random>

namespace quillmark::sim {

std::optional<std::string> SimAttributeDisk::value(const Uuid& volume, const std::string& name) const {
  const auto states = volumes_.find(volume);
  if (states == volumes_.end()) return std::nullopt;
  const Values& now = states->second.back();
  const auto found = now.find(name);
  return found == now.end() ? std::nullopt : std::optional(found->second);
}

void SimAttributeDisk::change(const Uuid& volume, const std::string& name, std::optional<std::string> value) {
  States& states = volumes_.try_emplace(volume, States{Values{}}).first->second;
  Values next = states.back();
  if (value) {
    next[name] = std::move(*value);
  } else {
    next.erase(name);
  }
  states.push_back(std::move(next));
}

void SimAttributeDisk::synced(const Uuid& volume) {
  if (const auto states = volumes_.find(volume); states != volumes_.end()) {
    states->second.erase(states->second.begin(), states->second.end() - 1);
  }
}

void SimAttributeDisk::everythingSynced() {
  for (auto& [volume, states] : volumes_) states.erase(states.begin(), states.end() - 1);
}

SimAttributeDisk SimAttributeDisk::afterPowerCut(std::uint64_t seed) const {
  std::mt19937_64 engine(seed);
  SimAttributeDisk disk;
  for (const auto& [volume, states] : volumes_) disk.volumes_[volume] = {states[engine() % states.size()]};
  return disk;
}

}  // namespace quillmark::sim
