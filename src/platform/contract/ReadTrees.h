// Trees read by each of the ways that a DirectoryReader has, put together in the plainest manner, so that the ways can be
// compared with each other and with what was made.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "platform/DirectoryReader.h"

namespace quillmark {

inline void PrintTo(const FileFacts& facts, std::ostream* out) {
  *out << "{inode " << facts.inode << " size " << facts.size << " mtime " << facts.mtimeNS << " generation "
       << facts.generation << (facts.hasGeneration ? "" : "?") << " owner " << facts.uid << ":" << facts.gid << " mode "
       << std::oct << facts.mode << std::dec << " flags " << int{facts.flags} << " type "
       << static_cast<int>(facts.type) << (facts.isPlaceholder ? " placeholder" : "") << "}";
}

namespace contract {

using TreeMap = std::map<std::string, FileFacts>;  // by path

inline bool isEntered(const FileFacts& facts) { return facts.type == FileType::directory && !facts.isPlaceholder; }

inline std::vector<DirectoryRecords::Record> recordsOf(OpenDirectory& directory, DirectoryRecords& records) {
  for (;;) {
    const auto more = directory.readRecords(records);
    EXPECT_TRUE(more.ok()) << "errno " << more.error();
    if (!more || !*more) break;
  }
  std::vector<DirectoryRecords::Record> all;
  for (std::size_t i = 0; i < records.size(); ++i) all.push_back(records[i]);
  return all;
}

inline void addByDirectories(OpenTree& tree, const std::string& path, TreeMap& map) {
  std::vector<std::string> below;
  {
    const auto directory = tree.open(path);
    ASSERT_TRUE(directory.ok()) << path.size() << " bytes of path, errno " << directory.error();
    DirectoryRecords records;
    for (const auto& [name, facts] : recordsOf(**directory, records)) {
      const std::string child = path + "/" + std::string(name);
      EXPECT_TRUE(map.emplace(child, facts).second) << "twice: " << child;
      if (isEntered(facts)) below.push_back(child);
    }
  }
  for (const std::string& child : below) addByDirectories(tree, child, map);
}

// The root stands under the empty path.
inline TreeMap readByDirectories(DirectoryReader& reader, const std::string& root) {
  TreeMap map;
  const auto tree = reader.openTree(root);
  EXPECT_TRUE(tree.ok()) << root << ": errno " << tree.error();
  if (!tree) return map;
  map.emplace("", (*tree)->root());
  addByDirectories(**tree, "", map);
  return map;
}

inline TreeMap readAsWhole(DirectoryReader& reader, const std::string& root) {
  TreeMap map;
  const auto tree = reader.openTree(root);
  EXPECT_TRUE(tree.ok()) << root << ": errno " << tree.error();
  if (!tree) return map;
  const auto whole = (*tree)->openWhole();
  EXPECT_TRUE(whole.ok()) << root << ": errno " << whole.error();
  if (!whole) return map;

  struct Named {
    std::string name;
    FileFacts facts;
    std::uint64_t number = 0;  // of a directory
  };
  std::multimap<std::uint64_t, Named> children;  // by the parent's number
  std::uint64_t lastNumber = 0;
  const auto goOn = [] { return false; };
  for (std::size_t i = 0; i <= (*whole)->pieceCount(); ++i) {
    const auto piece = i < (*whole)->pieceCount() ? (*whole)->read(i, goOn) : (*whole)->finish(goOn);
    EXPECT_TRUE(piece.ok()) << "errno " << piece.error();
    if (!piece) return map;
    std::map<std::uint32_t, std::uint64_t> numbers;
    for (const auto& directory : piece->directories) {
      EXPECT_GT(directory.number, lastNumber);
      lastNumber = directory.number;
      numbers[directory.object] = directory.number;
    }
    std::uint32_t lastObject = 0;
    for (const auto& link : piece->links) {
      EXPECT_GE(link.object, lastObject);
      lastObject = link.object;
      const auto number = numbers.find(link.object);
      children.emplace(link.parent, Named{std::string(piece->nameOf(link)), piece->objects[link.object],
                                          number == numbers.end() ? 0 : number->second});
    }
  }

  map.emplace("", (*tree)->root());
  std::vector<std::pair<std::string, std::uint64_t>> waiting{{"", (*whole)->rootNumber()}};
  while (!waiting.empty()) {
    const auto [path, number] = waiting.back();
    waiting.pop_back();
    const auto [from, to] = children.equal_range(number);
    for (auto child = from; child != to; ++child) {
      const std::string childPath = path + "/" + child->second.name;
      EXPECT_TRUE(map.emplace(childPath, child->second.facts).second) << "twice: " << childPath;
      if (isEntered(child->second.facts)) waiting.emplace_back(childPath, child->second.number);
    }
  }
  return map;
}

// Says what differs, not all that there is.
inline void expectEqual(const TreeMap& actual, const TreeMap& expected) {
  EXPECT_EQ(actual.size(), expected.size());
  for (const auto& [path, facts] : expected) {
    const auto found = actual.find(path);
    if (found == actual.end()) {
      ADD_FAILURE() << "missing: " << path;
    } else {
      EXPECT_EQ(found->second, facts) << path;
    }
  }
  for (const auto& [path, facts] : actual) EXPECT_TRUE(expected.contains(path)) << "unexpected: " << path;
}

}  // namespace contract
}  // namespace quillmark
