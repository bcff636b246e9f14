// IndexMounts: gets at the tree of a snapshot for a scan: through a mount that is there already, else a private one.
// Ownership: borrows its services; gives out mounts that end with their owner.
// Threads:   thread-safe; mounts are made one at a time.
// Errors:    throws Error.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "base/Uuid.h"
#include "base/Xid.h"
#include "history/HistoryServices.h"
#include "platform/sync.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

class IndexMounts final {
 public:
  // A snapshot's tree at a path, for as long as it lives.
  class Mounted final {
   public:
    ~Mounted();
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;
    [[nodiscard]] const std::string& path() const { return path_; }
    // False when something else has come to lie there, or nothing.
    [[nodiscard]] bool stillHoldsSnapshot() const { return owner_.holds(path_, source_); }

   private:
    friend class IndexMounts;
    Mounted(IndexMounts& owner, std::string path, std::string source)
        : owner_(owner), path_(std::move(path)), source_(std::move(source)) {}
    IndexMounts& owner_;
    const std::string path_;
    const std::string source_;
    bool isOurs_ = false;
    std::optional<std::string> pin_;
  };

  explicit IndexMounts(const HistoryServices& services);

  [[nodiscard]] std::unique_ptr<Mounted> mount(const VolumeInfo& volume, const std::string& name, Xid xid);
  // Takes away what lies in the private mount root and is in nobody's use. Never fails.
  void sweep();

 private:
  // A mount of exactly this source on exactly this path.
  [[nodiscard]] bool holds(const std::string& path, const std::string& source) const;
  [[nodiscard]] std::unique_ptr<Mounted> useOthers(const std::string& path, const std::string& source);
  [[nodiscard]] std::unique_ptr<Mounted> useOwn(const std::string& path, const std::string& source);
  [[nodiscard]] std::unique_ptr<Mounted> atIndexPath(const VolumeInfo& volume, const std::string& name, Xid xid,
                                                     const std::string& path, const std::string& source);
  [[nodiscard]] std::unique_ptr<Mounted> mountedMeanwhile(const std::string& path, const std::string& userPath,
                                                          const std::string& source);
  void release(const Mounted& mounted);
  void unmount(const std::string& path);

  const HistoryServices& services_;
  Mutex mounting_;  // held while a mount is made and while the root is swept, so that no new one is swept away
  Guarded<std::set<std::string>> active_;
};

}  // namespace quillmark
