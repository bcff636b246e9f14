// SafeFS: file work as root in places that an ordinary user can change at the same moment. It goes through open
// directories, one name at a time, and no step from a directory to its child follows a link.
//
//   const SafeFS::Directory home = files.openCreating(path, 0755, [&](const auto& deepest) { authorize(deepest); });
//   files.writeAtomically(text, "report", home, 0600, uid, gid);
//
// Ownership: borrows the platform's calls, which must outlive it and every Directory.
// Threads:   thread-safe, without state of its own.
// Errors:    throws POSIXFailure, or InvalidComponent for a name that is none, before any call is made.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Error.h"
#include "base/FunctionRef.h"
#include "platform/FileWork.h"

namespace quillmark {

class Random;
class ThisProcess;

class SafeFS final {
 public:
  // An open directory; copies share the descriptor, and the last one closes it.
  class Directory final {
   public:
    [[nodiscard]] int fd() const { return descriptor_->get(); }

   private:
    friend class SafeFS;
    explicit Directory(WorkDescriptor descriptor)
        : descriptor_(std::make_shared<const WorkDescriptor>(std::move(descriptor))) {}
    std::shared_ptr<const WorkDescriptor> descriptor_;
  };

  // A call that failed; its code() is the errno.
  class POSIXFailure final : public Error {
   public:
    POSIXFailure(std::string operation, std::string component, int code);
    [[nodiscard]] const std::string& operation() const { return operation_; }
    [[nodiscard]] const std::string& component() const { return component_; }

   private:
    std::string operation_;
    std::string component_;
  };

  class InvalidComponent final : public Error {
   public:
    explicit InvalidComponent(std::string component);
    [[nodiscard]] const std::string& component() const { return component_; }

   private:
    std::string component_;
  };

  // Whether a copy keeps what gives its user another's rights: setuid, setgid, file capabilities.
  enum class Elevation { kept, dropped };

  SafeFS(FileWork& work, Random& random, ThisProcess& process) : work_(work), random_(random), process_(process) {}

  [[nodiscard]] static bool isComponent(const std::string& name);
  static void validateComponent(const std::string& name);

  // An absolute path, which may pass through links.
  [[nodiscard]] Directory openDirectory(const std::string& path) const;
  // The directory that holds what the path names, and its name there.
  [[nodiscard]] std::pair<Directory, std::string> openParent(const std::string& path) const;
  [[nodiscard]] Directory openChild(const std::string& name, const Directory& parent) const;
  // A directory that this call made; fails when anything stands there.
  [[nodiscard]] Directory createChild(const std::string& name, const Directory& parent, std::uint32_t mode) const;
  // A directory with exactly this owner and mode. A file or link that stands there goes.
  [[nodiscard]] Directory ensureChild(const std::string& name, const Directory& parent, std::uint32_t mode,
                                      std::uint32_t uid, std::uint32_t gid) const;
  // The directory of an absolute path, missing levels made. `check` sees the deepest level that exists, as it was
  // opened, before anything is made; when it throws, nothing is. Levels made before a later one fails stay.
  [[nodiscard]] Directory openCreating(const std::string& path, std::uint32_t mode,
                                       FunctionRef<void(const Directory&)> check) const;

  // Through a temporary file and a rename: the name holds the old content or the new. Not durable: nothing is synced.
  void writeAtomically(std::string_view data, const std::string& name, const Directory& parent, std::uint32_t mode,
                       std::uint32_t uid, std::uint32_t gid) const;
  // Absent on success, else the errno.
  [[nodiscard]] std::optional<int> rename(const std::string& from, const Directory& fromParent, const std::string& to,
                                          const Directory& toParent, RenameMode mode) const;

  // Absent when the call fails, whatever the reason.
  [[nodiscard]] std::optional<StatRecord> lstatChild(const std::string& name, const Directory& parent) const;
  [[nodiscard]] std::optional<StatRecord> statDirectory(const Directory& directory) const;
  // In the directory's order.
  [[nodiscard]] std::vector<std::string> list(const Directory& directory) const;

  // As far as it goes, and says nothing. What lies in another mount or in a nested volume is not entered and not
  // removed, nor are the directories that lead to it. Some fifty descriptors and 100 MB at the very most, however deep
  // and wide the tree: see the limits in SafeFSRemove.cpp.
  void removeTree(const std::string& name, const Directory& parent) const;

  // Owner, extended attributes, access control list, mode, times and flags of one open file or directory to another.
  // What belongs to the place stays behind: properties of the file system, and our own attributes.
  void copyMetadata(int source, int destination, Elevation elevation = Elevation::kept) const;

 private:
  [[nodiscard]] Directory opened(const SysResult<int>& fd, const std::string& component) const;
  void makeLevel(const std::string& name, const Directory& parent, std::uint32_t mode) const;
  [[nodiscard]] SysResult<int> replaceByDirectory(const std::string& name, const Directory& parent,
                                                  std::uint32_t mode) const;
  void copyAttributes(int source, int destination, Elevation elevation) const;

  FileWork& work_;
  Random& random_;
  ThisProcess& process_;
};

}  // namespace quillmark
