#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "TemporaryDirectory.h"
#include "platform/NameText.h"
#include "platform/contract/DirectoryReaderSuite.h"
#include "platform/linux/DirectoryReader.h"
#include "platform/sim/SimDirectoryReader.h"

namespace quillmark {
namespace {

class LinuxBackend final {
 public:
  DirectoryReader& reader() { return reader_; }
  [[nodiscard]] std::string root() const { return root_.path(); }
  void makeDirectory(const std::string& path) { std::filesystem::create_directories(at(path)); }
  void write(const std::string& path, std::size_t size) {
    std::ofstream(at(path)) << std::string(size, 'x');
    std::filesystem::permissions(at(path), std::filesystem::perms(0644));
  }
  void makeLink(const std::string& path) { std::filesystem::create_symlink("nowhere", at(path)); }
  void link(const std::string& from, const std::string& to) { std::filesystem::create_hard_link(at(from), at(to)); }
  void rename(const std::string& from, const std::string& to) { std::filesystem::rename(at(from), at(to)); }
  void remove(const std::string& path) { std::filesystem::remove(at(path)); }
  [[nodiscard]] std::optional<std::string> frozen() const { return std::nullopt; }

 private:
  [[nodiscard]] std::string at(const std::string& path) const { return root_.path() + nameBytes(path); }

  const TemporaryDirectory root_;
  os::LinuxDirectoryReader reader_;
};

class SimBackend final {
 public:
  SimBackend() { volumes_.add(sim::makeSimVolume(uuid_)); }
  DirectoryReader& reader() { return reader_; }
  [[nodiscard]] std::string root() const { return "/Volumes/Data"; }
  void makeDirectory(const std::string& path) {
    edit([&](sim::SimTree& tree) { tree.makeDirectory(path); });
  }
  void write(const std::string& path, std::int64_t size) {
    edit([&](sim::SimTree& tree) { tree.write(path, size); });
  }
  void makeLink(const std::string& path) {
    edit([&](sim::SimTree& tree) { tree.makeLink(path); });
  }
  void link(const std::string& from, const std::string& to) {
    edit([&](sim::SimTree& tree) { tree.link(from, to); });
  }
  void rename(const std::string& from, const std::string& to) {
    edit([&](sim::SimTree& tree) { tree.rename(from, to); });
  }
  void remove(const std::string& path) {
    edit([&](sim::SimTree& tree) { tree.remove(path); });
  }
  [[nodiscard]] std::optional<std::string> frozen() {
    const std::string name = "frozen " + std::to_string(++frozen_), directory = "/Volumes/" + name;
    EXPECT_TRUE(volumes_.addSnapshot(uuid_, name, Date::from1970(1'772'355'600)));
    EXPECT_TRUE(volumes_.mount(uuid_, directory, name, mntReadOnly));
    return directory;
  }

 private:
  void edit(FunctionRef<void(sim::SimTree&)> work) {
    volumes_.change(uuid_, [&](sim::SimVolume& volume) { work(volume.tree); });
  }

  const Uuid uuid_ = *Uuid::parse("0f0e0d0c-0b0a-4908-8706-050403020100");
  sim::SimVolumes volumes_;
  sim::SimDirectoryReader reader_{volumes_};
  int frozen_ = 0;
};

TEST(LinuxDirectoryReader, LowPriorityIsTheThreadsOwnAndEndsWithItsGuard) {
  const auto priority = [] { return ::syscall(SYS_ioprio_get, 1, 0) >> 13; };
  const auto before = priority();
  os::LinuxDirectoryReader reader;
  {
    const auto lowered = reader.lowerPriority();
    EXPECT_EQ(priority(), 3) << "the idle class";
  }
  EXPECT_EQ(priority(), before);
}

TEST(LinuxDirectoryReader, WhereNoWritesAreCountedTheLayoutOfAFileIsToBeHad) {
  LinuxBackend backend;
  backend.write("/file", 100'000);
  const auto tree = std::move(*backend.reader().openTree(backend.root()));
  const auto directory = std::move(*tree->open(""));
  if (directory->lstat("file")->hasGeneration) GTEST_SKIP() << "writes are counted here";
  EXPECT_EQ(directory->generationOf("file").error(), ENOTSUP);
  const auto layout = directory->layoutOf("file");
  ASSERT_TRUE(layout.ok());
  EXPECT_EQ((*layout)->size(), 100'000);
  EXPECT_GT((*layout)->changedNS(), 1'600'000'000'000'000'000);
  EXPECT_EQ(directory->layoutOf("missing").error(), ENOENT);
  EXPECT_EQ(directory->layoutOf("../" + backend.root().substr(1)).error(), EINVAL);
}

}  // namespace

namespace contract {
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, DirectoryReaderSuite, LinuxBackend);
INSTANTIATE_TYPED_TEST_SUITE_P(Simulated, DirectoryReaderSuite, SimBackend);
}  // namespace contract
}  // namespace quillmark
