// What every DirectoryReader does. A backend gives
//   reader()
//   root()           a directory of its own, the tree's root; paths below are within it, as "/a/b"
//   makeDirectory(path), write(path, size), makeLink(path), link(from, to), rename(from, to), remove(path)
//   frozen()         the root of a tree that is as this one stands now and can be read as a whole; absent where there is
//                    no such thing
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>

#include "platform/contract/ReadTrees.h"

namespace quillmark::contract {

template <class Backend>
class DirectoryReaderSuite : public ::testing::Test {
 protected:
  TreeMap tree() { return readByDirectories(backend_.reader(), backend_.root()); }
  FileFacts facts(const std::string& path) {
    const TreeMap all = tree();
    const auto found = all.find(path);
    if (found == all.end()) throw std::runtime_error("no " + path);
    return found->second;
  }
  std::unique_ptr<OpenTree> open() { return std::move(*backend_.reader().openTree(backend_.root())); }

  Backend backend_;
};

TYPED_TEST_SUITE_P(DirectoryReaderSuite);

TYPED_TEST_P(DirectoryReaderSuite, AnEntryTellsWhatItIs) {
  this->backend_.makeDirectory("/directory");
  this->backend_.write("/directory/file", 4321);
  this->backend_.write("/directory/empty", 0);
  this->backend_.makeLink("/link");
  const TreeMap tree = this->tree();
  ASSERT_EQ(tree.size(), 5u);
  EXPECT_EQ(tree.at("").type, FileType::directory);
  EXPECT_EQ(tree.at("/directory").type, FileType::directory);
  EXPECT_EQ(tree.at("/link").type, FileType::symlink);
  const FileFacts& file = tree.at("/directory/file");
  EXPECT_EQ(file.type, FileType::regular);
  EXPECT_EQ(file.size, 4321);
  EXPECT_EQ(file.mode, 0644);
  EXPECT_GT(file.mtimeNS, 1'600'000'000'000'000'000);
  EXPECT_EQ(tree.at("/directory/empty").size, 0);
  EXPECT_EQ(tree.at("/directory/empty").generation, 0u);
  std::set<std::uint64_t> inodes;
  for (const auto& [path, facts] : tree) {
    EXPECT_FALSE(facts.isPlaceholder || facts.isDataless) << path;
    EXPECT_TRUE(facts.inode != 0 && inodes.insert(facts.inode).second) << path;
  }
}

TYPED_TEST_P(DirectoryReaderSuite, NamesOfAnyBytesAndManyOfThemAreToldOnceByBothWaysOfListing) {
  std::set<std::string> expected = {"plain", "sp\xC3\xA4\xC3\x9F", "line\nbreak", " ", "a\\b", "-", "..."};
  expected.insert("\xF4\x8E\xBF\xBF");    // the byte 0xFF
  expected.insert("x\xF4\x8E\xBE\x80y");  // the byte 0x80
  expected.insert(std::string(255, 'n'));
  for (int i = 0; i < 1'500; ++i) expected.insert("one of many with a name of some length " + std::to_string(i));
  for (const std::string& name : expected) this->backend_.write("/" + name, 1);
  const auto tree = this->open();
  DirectoryRecords records;
  std::set<std::string> recorded;
  for (const auto& [name, facts] : recordsOf(**tree->open(""), records)) {
    EXPECT_TRUE(recorded.emplace(name).second) << name;
  }
  EXPECT_EQ(recorded, expected);
  std::set<std::string> named;
  const auto directory = std::move(*tree->opendir(""));
  for (;;) {
    const auto some = directory->readNames();
    ASSERT_TRUE(some.ok());
    if (some->empty()) break;
    for (const std::string& name : *some) EXPECT_TRUE(named.insert(name).second) << name;
  }
  EXPECT_EQ(named, expected);
  for (std::size_t i = 0; i < records.size(); i += 97) {
    const auto facts = directory->lstat(std::string(records[i].name));
    ASSERT_TRUE(facts.ok());
    EXPECT_EQ(*facts, records[i].facts);
  }
}

TYPED_TEST_P(DirectoryReaderSuite, AnObjectKeepsItsIdentityAndNobodyIsGivenItAgain) {
  this->backend_.write("/file", 10);
  const std::uint64_t first = this->facts("/file").inode;
  this->backend_.makeDirectory("/other");
  this->backend_.link("/file", "/other/second name");
  this->backend_.rename("/file", "/renamed");
  EXPECT_EQ(this->facts("/renamed").inode, first);
  EXPECT_EQ(this->facts("/other/second name").inode, first);
  std::set<std::uint64_t> seen{first};
  this->backend_.remove("/renamed");
  this->backend_.remove("/other/second name");
  for (int i = 0; i < 20; ++i) {
    this->backend_.write("/file", 10);
    EXPECT_TRUE(seen.insert(this->facts("/file").inode).second) << i;
    this->backend_.remove("/file");
  }
}

TYPED_TEST_P(DirectoryReaderSuite, WhatIsMissingOrAnotherKindIsSaid) {
  this->backend_.write("/file", 10);
  EXPECT_EQ(this->backend_.reader().openTree(this->backend_.root() + "/missing").error(), ENOENT);
  const auto tree = this->open();
  EXPECT_EQ(tree->open("/missing").error(), ENOENT);
  EXPECT_EQ(tree->open("/file").error(), ENOENT) << "the directory that was there is gone";
  EXPECT_EQ((*tree->open(""))->lstat("missing").error(), ENOENT);
  EXPECT_FALSE(*tree->isDataless(""));
  const auto leaf = this->backend_.reader().openTree(this->backend_.root() + "/file");
  ASSERT_TRUE(leaf.ok());
  EXPECT_EQ((*leaf)->root(), this->facts("/file"));
  EXPECT_FALSE((*leaf)->open("").ok());
  EXPECT_EQ((*leaf)->openWhole().error(), ENOTSUP);
}

TYPED_TEST_P(DirectoryReaderSuite, ATreeThatIsFrozenReadsTheSameAsAWholeAndByItsDirectories) {
  for (const char* directory : {"/a", "/a/b", "/a/b/c", "/empty"}) this->backend_.makeDirectory(directory);
  for (int i = 0; i < 40; ++i) this->backend_.write("/a/b/file " + std::to_string(i), i * 700);
  this->backend_.makeLink("/a/link");
  this->backend_.link("/a/b/file 7", "/a/b/c/seven");
  this->backend_.link("/a/b/file 7", "/a/b/7");
  this->backend_.rename("/a/b/file 8", "/empty/eight");
  this->backend_.rename("/a/b/c", "/a/d");
  const std::optional<std::string> frozen = this->backend_.frozen();
  EXPECT_EQ(this->open()->openWhole().error(), ENOTSUP);
  if (!frozen) return;
  const TreeMap whole = readAsWhole(this->backend_.reader(), *frozen);
  EXPECT_EQ(whole.size(), 48u);
  expectEqual(whole, readByDirectories(this->backend_.reader(), *frozen));
  // Identities and witnesses are those of the tree that it was made from.
  expectEqual(whole, this->tree());
  this->backend_.write("/a/b/file 9", 9 * 700);
  const FileFacts before = whole.at("/a/b/file 9"),
                  after = readAsWhole(this->backend_.reader(), *this->backend_.frozen()).at("/a/b/file 9");
  EXPECT_EQ(before.size, after.size);
  EXPECT_EQ(before.inode, after.inode);
  EXPECT_TRUE(before.hasGeneration && before.generation != after.generation);
}

TYPED_TEST_P(DirectoryReaderSuite, PrioritiesAndProcessorsAreToBeHad) {
  EXPECT_GE(this->backend_.reader().processorCount(), 1u);
  EXPECT_TRUE(this->backend_.reader().lowerPriority());
}

REGISTER_TYPED_TEST_SUITE_P(DirectoryReaderSuite, AnEntryTellsWhatItIs,
                            NamesOfAnyBytesAndManyOfThemAreToldOnceByBothWaysOfListing,
                            AnObjectKeepsItsIdentityAndNobodyIsGivenItAgain, WhatIsMissingOrAnotherKindIsSaid,
                            ATreeThatIsFrozenReadsTheSameAsAWholeAndByItsDirectories,
                            PrioritiesAndProcessorsAreToBeHad);

}  // namespace quillmark::contract
