#include "bench/TreeMaker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>

#include "base/UniqueFd.h"

namespace quillmark::bench {
namespace {

// The part of directories among the entries of a directory, by its depth.
constexpr double directoryShare[] = {0.7, 0.4, 0.24, 0.105, 0.03, 0.014, 0.01, 0.006, 0};
constexpr unsigned deepest = std::size(directoryShare) - 1;

constexpr const char* words[] = {
    "archive", "audio",    "backup",  "battery", "budget",  "cache",     "camera",     "chapter", "client",  "compiler",
    "config",  "contract", "cover",   "daemon",  "data",    "design",    "dictionary", "draft",   "driver",  "episode",
    "factory", "figure",   "filter",  "font",    "gallery", "handler",   "helper",     "history", "holiday", "index",
    "install", "invoice",  "journal", "kernel",  "lecture", "letter",    "library",    "locale",  "manager", "meeting",
    "message", "model",    "module",  "network", "notes",   "object",    "package",    "parser",  "photo",   "playlist",
    "plugin",  "preview",  "printer", "profile", "project", "query",     "receipt",    "record",  "report",  "sample",
    "scene",   "schema",   "server",  "session", "shader",  "signal",    "spring",     "storage", "stream",  "summer",
    "table",   "texture",  "theme",   "thesis",  "thread",  "thumbnail", "token",      "update",  "video",   "winter"};
constexpr const char* endings[] = {".c",    ".h",   ".cpp", ".o",  ".py",  ".js",   ".json", ".xml", ".html",
                                   ".png",  ".jpg", ".txt", ".md", ".mo",  ".conf", ".svg",  ".pdf", ".odt",
                                   ".flac", ".log", ".rs",  ".go", ".map", ".yaml", ".sh",   "",     ""};
constexpr const char* topDirectories[] = {"boot", "data", "etc", "home", "lib", "opt", "root", "srv", "usr", "var"};

void check(bool ok, const std::string& what) {
  if (ok) return;
  std::perror(what.c_str());
  std::exit(1);
}

UniqueFd openDirectory(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  check(fd.valid(), path);
  return fd;
}

}  // namespace

TreeMaker::TreeMaker(std::size_t entries, std::uint64_t seed) : random_(seed) { plan(entries); }

std::string TreeMaker::freshName(bool isDirectory) {
  const std::string word = words[below(std::size(words))], other = words[below(std::size(words))];
  const std::string number = std::to_string(++serial_);
  std::string name;
  switch (below(isDirectory ? 3 : 6)) {
    case 0: name = word + "-" + number; break;
    case 1: name = word + "_" + other + number; break;
    case 2: name = word + "." + other + "-" + number; break;
    case 3: name = "IMG_2023" + std::to_string(1000 + below(9000)) + "_" + number; break;
    case 4: name = "lib" + word + "-" + other + ".so." + number; break;
    default: name = word + " " + other + " " + number; break;
  }
  return isDirectory ? name : name + endings[below(std::size(endings))];
}

void TreeMaker::plan(std::size_t entries) {
  std::size_t made = 0;
  directories_.push_back({});
  for (const char* name : topDirectories) {
    if (made < entries) directories_.push_back({std::string("/") + name, 1, {}}), ++made;
  }
  for (std::size_t i = 1; i < directories_.size() && made < entries; ++i) {
    const std::uint64_t count = 20 + below(41);
    for (std::uint64_t k = 0; k < count && made < entries; ++k, ++made) {
      const unsigned depth = directories_[i].depth;
      const bool isDirectory = static_cast<double>(below(1'000'000)) < directoryShare[depth] * 1e6;
      if (isDirectory && depth < deepest) {
        directories_.push_back({directories_[i].path + "/" + freshName(true), depth + 1, {}});
      } else {
        directories_[i].files.push_back(freshName(false));
      }
    }
  }
  while (made < entries && directories_.size() > 1) {
    Directory& directory = directories_[1 + below(directories_.size() - 1)];
    for (int k = 0; k < 8 && made < entries; ++k, ++made) directory.files.push_back(freshName(false));
  }
}

void TreeMaker::make(const std::string& root) {
  for (const Directory& directory : directories_) {
    if (!directory.path.empty()) check(::mkdir((root + directory.path).c_str(), 0755) == 0, directory.path);
  }
  // Filled in no order, as years of work do it.
  std::vector<std::size_t> order(directories_.size());
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), random_);
  for (const std::size_t index : order) fill(root, directories_[index]);
}

void TreeMaker::fill(const std::string& root, const Directory& directory) {
  constexpr uid_t owners[] = {0, 0, 0, 1000, 1000, 1001, 33};
  const UniqueFd fd = openDirectory(root + directory.path);
  const uid_t owner = owners[below(std::size(owners))];
  std::string previous;
  for (const std::string& name : directory.files) {
    const std::uint64_t kind = below(1000);
    if (kind < 20) {
      check(::symlinkat((std::string("../") + words[below(std::size(words))]).c_str(), fd.get(), name.c_str()) == 0,
            name);
      continue;
    }
    if (kind < 25 && !previous.empty()) {
      check(::linkat(fd.get(), previous.c_str(), fd.get(), name.c_str(), 0) == 0, name);
      continue;
    }
    writeFile(fd.get(), name, someSize());
    const UniqueFd file(::openat(fd.get(), name.c_str(), O_RDONLY | O_CLOEXEC));
    if (owner != 0) check(::fchown(file.get(), owner, owner) == 0, name);
    if (below(100) == 0) check(::fsetxattr(file.get(), "user.origin", "https://example.org/file", 24, 0) == 0, name);
    const timespec times[2] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT},
                               {.tv_sec = static_cast<time_t>(1'400'000'000 + below(300'000'000)),
                                .tv_nsec = static_cast<long>(below(1'000'000'000))}};
    check(::futimens(file.get(), times) == 0, name);
    previous = name;
  }
}

std::size_t TreeMaker::someSize() {
  const std::uint64_t kind = below(100);
  if (kind < 10) return 0;
  if (kind < 60) return 16 + below(1985);
  if (kind < 98) return 2049 + below(6144);
  return 8192 + below(57344);
}

void TreeMaker::writeFile(int directory, const std::string& name, std::size_t size) {
  const UniqueFd fd(
      ::openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, below(5) == 0 ? 0755 : 0644));
  check(fd.valid(), name);
  std::string bytes(size, ' ');
  std::uint64_t value = random_();
  for (char& byte : bytes) byte = static_cast<char>(' ' + (value = value * 6364136223846793005u + 1) % 90);
  check(size == 0 || ::write(fd.get(), bytes.data(), size) == static_cast<ssize_t>(size), name);
}

TreeMaker::Directory& TreeMaker::someDirectory() {
  for (;;) {
    Directory& directory = directories_[1 + below(directories_.size() - 1)];
    if (directory.files.size() > 1) return directory;
  }
}

void TreeMaker::renameDirectory(const std::string& root) {
  std::size_t chosen = 0;
  while (directories_[chosen].depth < 3) chosen = below(directories_.size());
  const std::string from = directories_[chosen].path;
  const std::string to = from.substr(0, from.rfind('/') + 1) + freshName(true);
  check(::rename((root + from).c_str(), (root + to).c_str()) == 0, from);
  for (Directory& directory : directories_) {
    if (directory.path == from || directory.path.starts_with(from + "/")) directory.path.replace(0, from.size(), to);
  }
}

void TreeMaker::change(const std::string& root, std::size_t changes) {
  for (std::size_t i = 0; i < changes; ++i) {
    if (i % 100 == 9) {
      renameDirectory(root);
      continue;
    }
    Directory& directory = someDirectory();
    const UniqueFd fd = openDirectory(root + directory.path);
    std::string& name = directory.files[below(directory.files.size())];
    const std::string fresh = freshName(false);
    switch (i % 10) {
      case 0:
      case 1:
      case 2:
      case 3:
      case 4: writeFile(fd.get(), name, 16 + someSize()); break;
      case 5:
      case 6:
        check(::unlinkat(fd.get(), name.c_str(), 0) == 0, name);
        std::swap(name, directory.files.back());
        directory.files.pop_back();
        break;
      case 7:
      case 8:
        writeFile(fd.get(), fresh, someSize());
        directory.files.push_back(fresh);
        break;
      default: check(::renameat(fd.get(), name.c_str(), fd.get(), fresh.c_str()) == 0, name); name = fresh;
    }
  }
}

}  // namespace quillmark::bench
