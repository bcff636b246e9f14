#include "BtrfsMachine.h"
#include "platform/contract/DiskWatchSuite.h"

namespace quillmark {
namespace {

class BtrfsBackend final {
 public:
  BtrfsBackend() { machine_.shell("btrfs -q subvolume create " + machine_.top + "/other"); }
  Dispatch& dispatch() { return machine_.dispatch; }
  Disks& disks() { return machine_.disks; }
  void run(FunctionRef<void()> body) { body(); }
  [[nodiscard]] std::string path(const std::string& name) const { return machine_.root + "/" + name; }
  void mount(const std::string& name) { machine_.mount(path(name), "subvol=other"); }
  void unmount(const std::string& name) { machine_.shell("umount " + path(name)); }
  void remountReadOnly(const std::string& name) { machine_.shell("mount -o remount,bind,ro " + path(name)); }
  // A thousand mounts such as containers make.
  void makeNoise() {
    machine_.shell("cd " + machine_.root + " && mkdir -p n l w u " + machine_.volume +
                   "/folder && for i in $(seq 250); do mount -t tmpfs none n; mount -t overlay -o lowerdir=l:u none n;"
                   " mount --bind " +
                   machine_.volume + "/folder w; mount -t proc none u; umount n n w u; done");
  }

 private:
  os::BtrfsMachine machine_;
};

}  // namespace

namespace contract {
INSTANTIATE_TYPED_TEST_SUITE_P(Btrfs, DiskWatchSuite, BtrfsBackend);
}  // namespace contract
}  // namespace quillmark
