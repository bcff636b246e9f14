#include "bench/BtrfsImage.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace quillmark::bench {
namespace {

void check(bool ok, const std::string& what) {
  if (ok) return;
  std::perror(what.c_str());
  std::exit(1);
}

std::string firstLineWith(const char* file, const std::string& start) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(start)) return line.substr(line.find(':') + 2);
  }
  return "?";
}

void drop(const char* what) {
  ::sync();
  std::ofstream("/proc/sys/vm/drop_caches") << what;
}

}  // namespace

std::string whatImagesLack() {
  if (::geteuid() != 0) return "not root";
  if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return "no mount namespace of our own";
  }
  if (::access("/dev/loop-control", W_OK) != 0) return "no loop devices";
  if (std::system("command -v mkfs.btrfs btrfs losetup >/dev/null") != 0) return "no btrfs programs";
  if (std::system("grep -qw btrfs /proc/filesystems || modprobe btrfs 2>/dev/null") != 0) return "no btrfs";
  return {};
}

BtrfsImage::BtrfsImage(std::string file) : file_(std::move(file)), isKept_(!file_.empty()) {
  std::string directory = "/var/tmp/quillmark-bench-XXXXXX";
  check(::mkdtemp(directory.data()) != nullptr, "mkdtemp");
  top_ = directory + "/top";
  if (!isKept_) file_ = directory + "/image";
  wasThere_ = ::access(file_.c_str(), F_OK) == 0;
  if (!wasThere_) shell("truncate -s 64G " + file_ + " && mkfs.btrfs -q " + file_);
  shell("mkdir " + top_ + " && device=$(losetup --find --show --direct-io=on " + file_ +
        ") && mount -o noatime $device " + top_ + " && losetup -d $device");
  if (!wasThere_) shell("btrfs -q subvolume create " + volume());
}

BtrfsImage::~BtrfsImage() {
  shell("umount " + top_ + " && rmdir " + top_);
  if (!isKept_) shell("rm " + file_);
  shell("rmdir " + top_.substr(0, top_.rfind('/')));
}

std::string BtrfsImage::snapshot(const std::string& name) {
  const std::string path = top_ + "/" + name;
  shell("btrfs -q subvolume snapshot -r " + volume() + " " + path);
  return path;
}

void BtrfsImage::shell(const std::string& command) const { check(std::system(command.c_str()) == 0, command); }

std::string machineFacts() {
  utsname host{};
  ::uname(&host);
  return firstLineWith("/proc/cpuinfo", "model name") + ", " + std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) +
         " processors, " + std::to_string(::sysconf(_SC_PHYS_PAGES) / 256 * (::sysconf(_SC_PAGESIZE) / 4096) / 1024) +
         " GiB, Linux " + host.release;
}

void dropInodes() { drop("2"); }
void dropCaches() { drop("3"); }

}  // namespace quillmark::bench
