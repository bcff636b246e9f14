// What every FileWork does. A backend gives work() and directory(), an empty directory of its own.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>

#include "platform/FileWork.h"

namespace quillmark::contract {

template <class Backend>
class FileWorkSuite : public ::testing::Test {
 protected:
  FileWork& work() { return backend_.work(); }
  std::string path(const std::string& name) { return backend_.directory() + "/" + name; }

  WorkDescriptor held(const SysResult<int>& fd) {
    EXPECT_TRUE(fd.ok()) << fd.error();
    return WorkDescriptor(work(), fd ? *fd : -1);
  }
  WorkDescriptor top() { return held(work().openDirectory(backend_.directory())); }
  void put(const std::string& name, std::string_view contents = {}) { std::ofstream(path(name)) << contents; }
  std::string contents(const std::string& name) {
    std::ifstream file(path(name));
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void makeDirectory(const std::string& name) { std::filesystem::create_directories(path(name)); }
  void link(const std::string& target, const std::string& name) { std::filesystem::create_symlink(target, path(name)); }
  std::vector<std::string> readAll(int directory) {
    std::vector<std::string> names;
    for (;;) {
      const SysResult<std::vector<ListedName>> some = work().readNames(directory);
      EXPECT_TRUE(some.ok());
      if (!some || some->empty()) return names;
      for (const ListedName& listed : *some) names.push_back(listed.name);
    }
  }

 private:
  Backend backend_;
};

TYPED_TEST_SUITE_P(FileWorkSuite);

TYPED_TEST_P(FileWorkSuite, noStepDownFollowsALinkOrLeavesTheDirectory) {
  this->makeDirectory("directory/inner");
  this->put("file");
  this->link("directory", "link");
  this->link("nowhere", "dangling");
  this->link("inner", "directory/link");
  const WorkDescriptor top = this->top();
  struct Case {
    const char* name;
    int asChild;
    int beneath;
  };
  for (const Case& one :
       {Case{"directory", 0, 0}, Case{"link", ELOOP, ELOOP}, Case{"dangling", ELOOP, ELOOP},
        Case{"file", ENOTDIR, ENOTDIR}, Case{"missing", ENOENT, ENOENT}, Case{"directory/inner", EINVAL, 0},
        Case{"link/inner", EINVAL, ELOOP}, Case{"directory/link", EINVAL, ELOOP}, Case{".", EINVAL, 0},
        Case{"..", EINVAL, EXDEV}, Case{"/", EINVAL, EXDEV}, Case{"", EINVAL, ENOENT}}) {
    const SysResult<int> child = this->work().openChild(top.get(), one.name);
    EXPECT_EQ(child.error(), one.asChild) << one.name;
    if (child) this->work().close(*child);
    const SysResult<int> beneath = this->work().openBeneath(top.get(), one.name);
    EXPECT_EQ(beneath.error(), one.beneath) << one.name;
    if (beneath) this->work().close(*beneath);
  }
}

TYPED_TEST_P(FileWorkSuite, aNameIsOneNameAfterItBecameBytesToo) {
  const WorkDescriptor top = this->top();
  // The escapes of the bytes "/" and NUL.
  const std::string slash =
                        "a\xF4\x8E\xBC\xAF"
                        "b",
                    nul = "a\xF4\x8E\xBC\x80";
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"), slash, nul, std::string("a\0b", 3)}) {
    EXPECT_EQ(this->work().createFile(top.get(), name, 0600).error(), EINVAL);
    EXPECT_EQ(this->work().mkdirat(top.get(), name, 0700).error(), EINVAL);
    EXPECT_EQ(this->work().unlinkat(top.get(), name).error(), EINVAL);
    EXPECT_EQ(this->work().rmdirat(top.get(), name).error(), EINVAL);
    EXPECT_EQ(this->work().fstatat(top.get(), name).error(), EINVAL);
    EXPECT_EQ(this->work().rename(top.get(), name, top.get(), "x", RenameMode::replace).error(), EINVAL);
    EXPECT_EQ(this->work().rename(top.get(), "x", top.get(), name, RenameMode::replace).error(), EINVAL);
  }
  EXPECT_TRUE(this->readAll(top.get()).empty());
}

TYPED_TEST_P(FileWorkSuite, whatIsMadeIsNewAndHasItsMode) {
  const WorkDescriptor top = this->top();
  this->put("file", "kept");
  this->link("file", "link");
  EXPECT_EQ(this->work().createFile(top.get(), "file", 0600).error(), EEXIST);
  EXPECT_EQ(this->work().createFile(top.get(), "link", 0600).error(), EEXIST);
  EXPECT_EQ(this->work().mkdirat(top.get(), "link", 0700).error(), EEXIST);
  EXPECT_EQ(this->contents("file"), "kept");
  {
    const WorkDescriptor made = this->held(this->work().createFile(top.get(), "new", 0600));
    EXPECT_EQ(*this->work().write(made.get(), "text"), 4U);
    ASSERT_TRUE(this->work().fchmod(made.get(), 04751).ok());
    ASSERT_TRUE(this->work().fchown(made.get(), 0, 0).ok());
    ASSERT_TRUE(this->work().fchmod(made.get(), 04751).ok());
    ASSERT_TRUE(this->work().futimens(made.get(), {1000, 1}, {-2000, 999'999'999}).ok());
  }
  EXPECT_EQ(this->contents("new"), "text");
  const SysResult<StatRecord> record = this->work().fstatat(top.get(), "new");
  ASSERT_TRUE(record.ok());
  EXPECT_EQ(record->type, FileType::regular);
  EXPECT_EQ(record->mode, 04751U);
  EXPECT_EQ(record->size, 4);
  EXPECT_EQ(record->links, 1U);
  EXPECT_EQ(record->modified, (FileTime{-2000, 999'999'999}));
  EXPECT_EQ(this->work().fstatat(top.get(), "link")->type, FileType::symlink);
  EXPECT_EQ(this->work().lstat(this->path("link"))->type, FileType::symlink);
  EXPECT_EQ(this->work().fstat(top.get())->type, FileType::directory);
}

TYPED_TEST_P(FileWorkSuite, namesGoByTheirKind) {
  const WorkDescriptor top = this->top();
  this->makeDirectory("full/inner");
  this->makeDirectory("empty");
  this->put("file");
  this->link("full", "link");
  EXPECT_EQ(this->work().unlinkat(top.get(), "empty").error(), EISDIR);
  EXPECT_EQ(this->work().rmdirat(top.get(), "file").error(), ENOTDIR);
  EXPECT_EQ(this->work().rmdirat(top.get(), "link").error(), ENOTDIR);
  EXPECT_EQ(this->work().rmdirat(top.get(), "full").error(), ENOTEMPTY);
  EXPECT_TRUE(this->work().rmdirat(top.get(), "empty").ok());
  EXPECT_TRUE(this->work().unlinkat(top.get(), "link").ok());
  EXPECT_TRUE(this->work().unlinkat(top.get(), "file").ok());
  EXPECT_EQ(this->readAll(top.get()), std::vector<std::string>{"full"});
}

TYPED_TEST_P(FileWorkSuite, aRenameReplacesRefusesOrExchanges) {
  const WorkDescriptor top = this->top();
  this->makeDirectory("other");
  const WorkDescriptor other = this->held(this->work().openChild(top.get(), "other"));
  const auto rename = [&](const char* from, const char* to, RenameMode mode) {
    return this->work().rename(top.get(), from, other.get(), to, mode).error();
  };
  this->put("a", "a");
  this->put("other/b", "b");
  EXPECT_EQ(rename("a", "b", RenameMode::exclusive), EEXIST);
  EXPECT_EQ(rename("a", "b", RenameMode::exchange), 0);
  EXPECT_EQ(this->contents("a") + this->contents("other/b"), "ba");
  EXPECT_EQ(rename("a", "b", RenameMode::replace), 0);
  EXPECT_EQ(this->contents("a") + this->contents("other/b"), "b");
  EXPECT_EQ(rename("a", "b", RenameMode::exchange), ENOENT);
  this->put("a", "a");
  EXPECT_EQ(rename("a", "c", RenameMode::exclusive), 0);
}

// Goal:   a directory of any size is read in pieces, and a reader can go on behind a name when others before it are gone.
TYPED_TEST_P(FileWorkSuite, aLargeDirectoryIsReadInPiecesAndFromAnyPosition) {
  std::set<std::string> expected{"\xF4\x8E\xBF\xBF"};  // the byte 0xFF
  for (int i = 0; i < 2000; ++i) expected.insert("a name of some length " + std::to_string(i));
  const WorkDescriptor top = this->top();
  for (const std::string& name : expected) this->held(this->work().createFile(top.get(), name, 0600));
  const SysResult<std::vector<ListedName>> first = this->work().readNames(top.get());
  ASSERT_TRUE(first.ok());
  ASSERT_LT(first->size(), expected.size());
  const std::size_t half = first->size() / 2;
  for (std::size_t i = 0; i < half; ++i) {
    ASSERT_TRUE(this->work().unlinkat(top.get(), (*first)[i].name).ok());
    expected.erase((*first)[i].name);
  }
  const WorkDescriptor again = this->held(this->work().openBeneath(top.get(), "."));
  ASSERT_TRUE(this->work().seekNames(again.get(), (*first)[half - 1].next).ok());
  const std::vector<std::string> rest = this->readAll(again.get());
  EXPECT_EQ(std::set<std::string>(rest.begin(), rest.end()), expected);
  EXPECT_EQ(rest.size(), expected.size());
}

TYPED_TEST_P(FileWorkSuite, attributesListsAndFlagsAreSetAndRead) {
  const WorkDescriptor top = this->top();
  const WorkDescriptor file = this->held(this->work().createFile(top.get(), "file", 0640));
  FileWork& work = this->work();
  EXPECT_EQ(work.fgetxattr(file.get(), "user.none").error(), ENODATA);
  const std::string binary("a\0b", 3), large(2000, 'x');
  ASSERT_TRUE(work.fsetxattr(file.get(), "user.binary", binary).ok());
  ASSERT_TRUE(work.fsetxattr(file.get(), "user.empty", "").ok());
  ASSERT_TRUE(work.fsetxattr(file.get(), "user.\xF4\x8E\xBF\xBF", large).ok());
  const SysResult<std::vector<std::string>> names = work.flistxattr(file.get());
  ASSERT_TRUE(names.ok());
  EXPECT_EQ(std::set<std::string>(names->begin(), names->end()),
            (std::set<std::string>{"user.binary", "user.empty", "user.\xF4\x8E\xBF\xBF"}));
  EXPECT_EQ(*work.fgetxattr(file.get(), "user.binary"), binary);
  EXPECT_EQ(*work.fgetxattr(file.get(), "user.empty"), "");
  EXPECT_EQ(*work.fgetxattr(file.get(), "user.\xF4\x8E\xBF\xBF"), large);

  EXPECT_TRUE(work.accessControlList(file.get())->empty());
  EXPECT_TRUE(work.setAccessControlList(file.get(), {}).ok());
  // acl(5) as the kernel takes it: version 2; u::rw-, u:12:r--, g::---, m::r--, o::---.
  const auto entry = [](char tag, char permissions, std::string id) {
    return std::string{tag, 0, permissions, 0} + std::move(id);
  };
  const std::string nobody(4, '\xFF');
  const AccessControlList list{.access = std::string("\2\0\0\0", 4) + entry(1, 6, nobody) +
                                         entry(2, 4, std::string("\x0C\0\0\0", 4)) + entry(4, 0, nobody) +
                                         entry(16, 4, nobody) + entry(32, 0, nobody)};
  ASSERT_EQ(work.setAccessControlList(file.get(), list).error(), 0);
  EXPECT_EQ(*work.accessControlList(file.get()), list);
  EXPECT_EQ(work.fstat(file.get())->mode, 0640U);
  EXPECT_EQ(work.setAccessControlList(file.get(), {.access = list.access->substr(0, 9)}).error(), EINVAL);
  ASSERT_TRUE(work.setAccessControlList(file.get(), {}).ok());
  EXPECT_TRUE(work.accessControlList(file.get())->empty());

  const std::uint32_t noDump = 0x40;
  EXPECT_EQ(*work.flags(file.get()), 0U);
  ASSERT_TRUE(work.setFlags(file.get(), noDump).ok());
  EXPECT_EQ(*work.flags(file.get()), noDump);
  ASSERT_TRUE(work.setFlags(file.get(), 0).ok());
  EXPECT_EQ(*work.flags(file.get()), 0U);
}

REGISTER_TYPED_TEST_SUITE_P(FileWorkSuite, noStepDownFollowsALinkOrLeavesTheDirectory,
                            aNameIsOneNameAfterItBecameBytesToo, whatIsMadeIsNewAndHasItsMode, namesGoByTheirKind,
                            aRenameReplacesRefusesOrExchanges, aLargeDirectoryIsReadInPiecesAndFromAnyPosition,
                            attributesListsAndFlagsAreSetAndRead);

}  // namespace quillmark::contract
