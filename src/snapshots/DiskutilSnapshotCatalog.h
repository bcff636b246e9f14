// DiskutilSnapshotCatalog: the snapshots of a volume with their XIDs, as diskutil prints them.
// Errors: parsing throws Error in the domain "Quillmark.DiskutilSnapshotCatalog", codes 1 to 5. Takes hostile input.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "base/Xid.h"

namespace quillmark {

class PropertyLists;

struct DiskutilSnapshotCatalog {
  std::map<std::string, Xid> xidByName;

  [[nodiscard]] static DiskutilSnapshotCatalog parse(PropertyLists& propertyLists, std::string_view output);
};

}  // namespace quillmark
