// What diskutil prints: any text gives a catalog without empty names and zero XIDs, facts, or an error of the parser.
#include <cstdlib>

#include "base/Error.h"
#include "platform/linux/PropertyList.h"
#include "snapshots/DiskutilFacts.h"
#include "snapshots/DiskutilSnapshotCatalog.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillmark;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  os::LinuxPropertyLists lists;
  try {
    for (const auto& [name, xid] : DiskutilSnapshotCatalog::parse(lists, text).xidByName) {
      if (name.empty() || xid.value == 0) std::abort();
    }
  } catch (const Error& error) {
    if (error.domain() != "Quillmark.DiskutilSnapshotCatalog" || error.code() < 1 || error.code() > 5) std::abort();
  }
  (void)parseContainers(lists, text);
  (void)parseInfo(lists, text);
  return 0;
}
