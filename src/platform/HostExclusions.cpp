#include "platform/HostExclusions.h"

namespace quillmark {
namespace {

std::string parentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

}  // namespace

HostExclusions hostExclusions(const HostPaths& paths) {
  return {
      // An excluded directory's own entry stays, with its times: where files come and go in one of ours, the one above
      // it is named.
      .paths = {parentOf(paths.stateDirectory),
                paths.sharedDirectory,
                parentOf(paths.helperLog),
                paths.userMountRoot,
                "/proc",
                "/sys",
                "/dev",
                "/run",
                "/tmp",
                "/var/run",
                "/var/tmp",
                "/var/cache",
                "/var/lib/docker",
                "/var/lib/containers",
                "/var/lib/containerd",
                "/var/lib/buildkit",
                "/var/lib/kubelet/pods",
                "/var/lib/lxd/storage-pools",
                "/var/snap/lxd/common/lxd/storage-pools",
                "/var/lib/snapd/cache",
                "/var/lib/systemd/coredump"},
      .inHomes = {".cache", ".local/share/Trash", ".local/share/containers", ".local/share/docker", "snap/*/*/.cache",
                  ".var/app/*/cache"},
      .inVolumes = {"lost+found"},
      .homes = {"/root", "/home/*"},
  };
}

}  // namespace quillmark
