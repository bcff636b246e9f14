// What every Posix does. A backend gives posix() and directory(), an empty directory of its own.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "platform/posix.h"

namespace quillmark::contract {

template <class Backend>
class PosixSuite : public ::testing::Test {
 protected:
  Posix& posix() { return backend_.posix(); }
  std::string path(const std::string& name) { return backend_.directory() + "/" + name; }

  OpenFile opened(const std::string& name, OpenFlags flags) {
    const SysResult<int> fd = posix().open(path(name), flags);
    EXPECT_TRUE(fd.ok()) << name << ": " << fd.error();
    return OpenFile(posix(), fd ? *fd : -1);
  }
  void put(const std::string& name, std::string_view contents) {
    const OpenFile file = opened(name, {.write = true, .create = true, .truncate = true});
    const SysResult<std::size_t> written = posix().write(file.get(), contents);
    ASSERT_TRUE(written.ok() && *written == contents.size());
  }
  std::string contents(const std::string& name) {
    const OpenFile file = opened(name, {.read = true});
    std::string all;
    for (;;) {
      std::byte buffer[7];
      const SysResult<std::size_t> count = posix().read(file.get(), buffer);
      if (!count || *count == 0) return all;
      all.append(reinterpret_cast<const char*>(buffer), *count);
    }
  }

 private:
  Backend backend_;
};

TYPED_TEST_SUITE_P(PosixSuite);

TYPED_TEST_P(PosixSuite, whatIsWrittenIsRead) {
  this->put("file", "first");
  {
    const OpenFile file = this->opened("file", {.write = true, .append = true});
    EXPECT_EQ(*this->posix().write(file.get(), " second"), 7U);
    EXPECT_TRUE(this->posix().fsync(file.get()).ok());
    EXPECT_EQ(this->posix().fstat(file.get())->size, 12);
    EXPECT_TRUE(this->posix().ftruncate(file.get(), 9).ok());
  }
  EXPECT_EQ(this->contents("file"), "first sec");
}

TYPED_TEST_P(PosixSuite, refusalsBearTheirErrno) {
  this->put("file", "x");
  ASSERT_TRUE(this->posix().mkdir(this->path("directory"), 0700).ok());
  this->put("directory/inside", "x");
  const auto openError = [&](const std::string& name, OpenFlags flags) {
    return this->posix().open(this->path(name), flags).error();
  };
  EXPECT_EQ(openError("missing", {.read = true}), ENOENT);
  EXPECT_EQ(openError("file", {.write = true, .create = true, .exclusive = true}), EEXIST);
  EXPECT_EQ(openError("file", {.read = true, .directory = true}), ENOTDIR);
  EXPECT_EQ(openError("directory", {.write = true}), EISDIR);
  EXPECT_EQ(openError(std::string("nul\0name", 8), {.read = true}), EINVAL);
  EXPECT_EQ(this->posix().mkdir(this->path("directory"), 0700).error(), EEXIST);
  EXPECT_EQ(this->posix().rmdir(this->path("directory")).error(), ENOTEMPTY);
  EXPECT_EQ(this->posix().unlink(this->path("missing")).error(), ENOENT);
  EXPECT_EQ(this->posix().rename(this->path("missing"), this->path("x")).error(), ENOENT);
  EXPECT_EQ(this->posix().list(this->path("file")).error(), ENOTDIR);
  EXPECT_EQ(this->posix().lstat(this->path("file/x")).error(), ENOTDIR);
}

TYPED_TEST_P(PosixSuite, aRenameReplacesAndKeepsTheFile) {
  this->put("old", "old");
  this->put("new", "new");
  const SysResult<FileStatus> moved = this->posix().lstat(this->path("new"));
  ASSERT_TRUE(this->posix().rename(this->path("new"), this->path("old")).ok());
  EXPECT_EQ(this->contents("old"), "new");
  EXPECT_EQ(this->posix().lstat(this->path("old"))->inode, moved->inode);
  EXPECT_EQ(this->posix().lstat(this->path("new")).error(), ENOENT);
}

TYPED_TEST_P(PosixSuite, aDirectoryListsItsNamesAsText) {
  const std::string illFormed = "\xF4\x8E\xBF\xBF";  // U+10EFFF: the byte 0xFF
  const std::set<std::string> names{"plain", "with blank", illFormed};
  for (const std::string& name : names) this->put(name, name);
  const SysResult<std::vector<std::string>> listed = this->posix().list(this->path(""));
  ASSERT_TRUE(listed.ok());
  EXPECT_EQ(std::set<std::string>(listed->begin(), listed->end()), names);
  for (const std::string& name : names) EXPECT_TRUE(this->posix().unlink(this->path(name)).ok());
  EXPECT_TRUE(this->posix().list(this->path(""))->empty());
}

TYPED_TEST_P(PosixSuite, factsFollowTheChanges) {
  this->put("file", "12345");
  ASSERT_TRUE(this->posix().chmod(this->path("file"), 0640).ok());
  ASSERT_TRUE(this->posix().chown(this->path("file"), 0, 0).ok());
  const SysResult<FileStatus> byPath = this->posix().lstat(this->path("file"));
  ASSERT_TRUE(byPath.ok());
  EXPECT_EQ(byPath->type, FileType::regular);
  EXPECT_EQ(byPath->mode, 0640U);
  EXPECT_EQ(byPath->size, 5);
  EXPECT_EQ(byPath->uid, 0U);
  const OpenFile file = this->opened("file", {.read = true, .noFollow = true});
  ASSERT_TRUE(this->posix().fchmod(file.get(), 0600).ok());
  ASSERT_TRUE(this->posix().fchown(file.get(), 0, 0).ok());
  const SysResult<FileStatus> byDescriptor = this->posix().fstat(file.get());
  EXPECT_EQ(byDescriptor->mode, 0600U);
  EXPECT_EQ(byDescriptor->inode, byPath->inode);
  EXPECT_GE(byDescriptor->changed, byPath->modified);
  ASSERT_TRUE(this->posix().mkdir(this->path("directory"), 0750).ok());
  EXPECT_EQ(this->posix().lstat(this->path("directory"))->type, FileType::directory);
}

TYPED_TEST_P(PosixSuite, aLockIsHeldByOneDescriptorAndEndsWithIt) {
  this->put("lock", "");
  const OpenFile second = this->opened("lock", {.write = true});
  {
    const OpenFile first = this->opened("lock", {.write = true});
    EXPECT_TRUE(this->posix().tryLockFile(first.get()).ok());
    EXPECT_EQ(this->posix().tryLockFile(second.get()).error(), EWOULDBLOCK);
  }
  EXPECT_TRUE(this->posix().tryLockFile(second.get()).ok());
}

TYPED_TEST_P(PosixSuite, anUnlinkedFileLivesOnWhileItIsOpen) {
  this->put("file", "still here");
  const OpenFile file = this->opened("file", {.read = true});
  ASSERT_TRUE(this->posix().unlink(this->path("file")).ok());
  std::byte buffer[32];
  EXPECT_EQ(*this->posix().read(file.get(), buffer), 10U);
}

REGISTER_TYPED_TEST_SUITE_P(PosixSuite, whatIsWrittenIsRead, refusalsBearTheirErrno, aRenameReplacesAndKeepsTheFile,
                            aDirectoryListsItsNamesAsText, factsFollowTheChanges,
                            aLockIsHeldByOneDescriptorAndEndsWithIt, anUnlinkedFileLivesOnWhileItIsOpen);

}  // namespace quillmark::contract
