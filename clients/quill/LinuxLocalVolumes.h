// LinuxLocalVolumes: the volumes as any user of this machine may see them.
// Ownership: borrows the dispatch layer and the paths, which must outlive it.
// Threads:   one thread at a time.
#pragma once

#include <memory>

#include "platform/HostPaths.h"
#include "platform/dispatch.h"
#include "quill/LocalVolumes.h"

namespace quillmark::cli {

class LinuxLocalVolumes final : public LocalVolumes {
 public:
  LinuxLocalVolumes(Dispatch& dispatch, const HostPaths& paths);
  ~LinuxLocalVolumes() override;

  std::vector<APFSVolume> list(bool detailed) override;
  Place at(const std::string& path) override;
  Place here() override;
  std::vector<std::string> mountPoints() override;
  std::string absolutePath(const std::string& path) override;

 private:
  struct Inventory;

  Dispatch& dispatch_;
  const HostPaths& paths_;
  std::unique_ptr<Inventory> inventory_;  // made when first asked for
};

}  // namespace quillmark::cli
