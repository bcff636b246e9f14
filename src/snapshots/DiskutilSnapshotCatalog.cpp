#include "snapshots/DiskutilSnapshotCatalog.h"

#include <fmt/format.h>

#include "base/Error.h"
#include "platform/PropertyList.h"

namespace quillmark {
namespace {

Error failure(long code, std::string message) {
  return Error("Quillmark.DiskutilSnapshotCatalog", code, std::move(message));
}

PropertyList parsePlist(PropertyLists& propertyLists, std::string_view output) {
  try {
    PropertyList root = propertyLists.parse(output);
    if (root.dictionary()) return root;
  } catch (const Error& error) {
    throw failure(1, "diskutil returned an invalid snapshot plist: " + error.description());
  }
  throw failure(1, "diskutil returned an invalid snapshot plist: the root is no dictionary");
}

}  // namespace

DiskutilSnapshotCatalog DiskutilSnapshotCatalog::parse(PropertyLists& propertyLists, std::string_view output) {
  const PropertyList root = parsePlist(propertyLists, output);
  const PropertyList* snapshots = root.find("Snapshots");
  const PropertyArray* entries = snapshots ? snapshots->array() : nullptr;
  if (!entries) throw failure(2, "diskutil snapshot plist omitted the Snapshots array");

  DiskutilSnapshotCatalog catalog;
  for (std::size_t index = 0; index < entries->size(); ++index) {
    const PropertyList* name = (*entries)[index].find("SnapshotName");
    const PropertyList* xid = (*entries)[index].find("SnapshotXID");
    const std::optional<std::uint64_t> number = xid ? xid->unsignedNumber() : std::nullopt;
    if (!name || !name->string() || name->string()->empty() || !number) {
      throw failure(3, fmt::format("diskutil snapshot entry {} omitted SnapshotName or SnapshotXID", index));
    }
    if (*number == 0) throw failure(4, "diskutil reported a zero XID for snapshot " + *name->string());
    if (!catalog.xidByName.emplace(*name->string(), Xid{*number}).second) {
      throw failure(5, "diskutil reported duplicate snapshot name " + *name->string());
    }
  }
  return catalog;
}

}  // namespace quillmark
