// SimAttributeDisk: what attributes hang on volumes, and what of them would still be there after the power went: a
// volume's changes reach its disk in their order, those since the last sync as far as they came.
// Threads: thread-compatible.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Uuid.h"

namespace quillmark::sim {

class SimAttributeDisk final {
 public:
  [[nodiscard]] std::optional<std::string> value(const Uuid& volume, const std::string& name) const;
  // An absent value removes it.
  void change(const Uuid& volume, const std::string& name, std::optional<std::string> value);
  void synced(const Uuid& volume);
  void everythingSynced();
  // The same for the same seed.
  [[nodiscard]] SimAttributeDisk afterPowerCut(std::uint64_t seed) const;

 private:
  using Values = std::map<std::string, std::string>;
  // The states since the last sync, that one first; never empty.
  using States = std::vector<Values>;

  std::map<Uuid, States> volumes_;
};

}  // namespace quillmark::sim
