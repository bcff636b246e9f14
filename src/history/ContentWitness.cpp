#include "history/ContentWitness.h"

namespace quillmark {
namespace {

std::uint64_t layoutHash(FileLayout& layout) {
  constexpr std::uint64_t p = 0x100000001b3;
  std::uint64_t h = 0xcbf29ce484222325;
  for (std::int64_t offset = 0; offset < layout.size();) {
    const auto run = layout.runAt(offset, layout.size() - offset);
    if (!run || run->length < 1) return static_cast<std::uint64_t>(layout.changedNS());
    const auto at = static_cast<std::uint64_t>(offset), contiguous = static_cast<std::uint64_t>(run->length);
    h = (((run->device ^ ((at ^ h) * p)) * p) ^ contiguous) * p;
    offset += run->length;
  }
  return h;
}

std::uint64_t layoutHash(const SysResult<std::unique_ptr<FileLayout>>& layout) {
  return layout && (*layout)->size() > 0 ? layoutHash(**layout) : 0;
}

}  // namespace

std::uint64_t contentWitness(OpenDirectory& directory, const std::string& name, const FileFacts& facts) {
  if (facts.hasGeneration || facts.generation != 0) return facts.generation;
  if (const auto generation = directory.generationOf(name); generation && *generation != 0) return *generation;
  return facts.isDataless ? 0 : layoutHash(directory.layoutOf(name));
}

std::uint64_t contentWitness(OpenTree& tree) {
  const FileFacts& facts = tree.root();
  if (facts.hasGeneration || facts.generation != 0) return facts.generation;
  return facts.isDataless ? 0 : layoutHash(tree.rootLayout());
}

}  // namespace quillmark
