// BtrfsImage: a btrfs with a subvolume "data", on a sparse file on disk, seen by this process alone. The loop device frees
// itself with its last mount, and the file goes with it unless it was asked for by name.
// Threads: confined to one thread; the first one is made before any other thread starts.
// Errors:  ends the process with a message.
#pragma once

#include <string>

namespace quillmark::bench {

// Why there can be no btrfs here; empty when there can.
[[nodiscard]] std::string whatImagesLack();

class BtrfsImage final {
 public:
  // Without a name on a file of its own below /var/tmp. A file that is there already is used as it is.
  explicit BtrfsImage(std::string file = {});
  ~BtrfsImage();
  BtrfsImage(const BtrfsImage&) = delete;
  BtrfsImage& operator=(const BtrfsImage&) = delete;

  [[nodiscard]] bool wasThere() const { return wasThere_; }
  [[nodiscard]] std::string volume() const { return top_ + "/data"; }
  // Read-only, of the volume as it stands.
  std::string snapshot(const std::string& name);
  void shell(const std::string& command) const;

 private:
  std::string file_;
  const bool isKept_;
  bool wasThere_ = false;
  std::string top_;
};

// The machine in one line, for those who read figures.
[[nodiscard]] std::string machineFacts();
// What the kernel keeps of file systems is dropped: names and inodes, or blocks too.
void dropInodes();
void dropCaches();

}  // namespace quillmark::bench
