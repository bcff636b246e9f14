#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "base/Text.h"
#include "platform/NameText.h"
#include "platform/linux/SnapshotNames.h"

namespace quillmark::os {
namespace {

const Uuid volume = *Uuid::parse("0f0e0d0c-0b0a-4908-8706-050403020100");
const Uuid snapshot = *Uuid::parse("12345678-9abc-4def-8123-456789abcdef");
const std::string place = ".quillmark/0f0e0d0c-0b0a-4908-8706-050403020100/";

TEST(SnapshotNames, OursBearTheirNameAndOthersTheirPath) {
  const std::map<std::string, std::string> names = {
      {place + "com.harrowfern.Quillmark.manual.2026-03-01T12-00-00Z.x",
       "com.harrowfern.Quillmark.manual.2026-03-01T12-00-00Z.x"},
      {place + "a:b", "a:b"},
      {place + ":a", ":.quillmark:0f0e0d0c-0b0a-4908-8706-050403020100:%3Aa"},
      {place + "deeper/a", ":.quillmark:0f0e0d0c-0b0a-4908-8706-050403020100:deeper:a"},
      {".quillmark/0f0e0d0c-0b0a-4908-8706-050403020101/a", ":.quillmark:0f0e0d0c-0b0a-4908-8706-050403020101:a"},
      {"@home/.snapshots/1/snapshot", ":@home:.snapshots:1:snapshot"},
      {"100%/a:b", ":100%25:a%3Ab"},
      {"com.apple.os.update", ":com.apple.os.update"},
      {"a\x01\xFF", ":a\U0010EF01\U0010EFFF"},
  };
  for (const auto& [path, name] : names) EXPECT_EQ(listedName({path, true}, volume, snapshot), name);
  EXPECT_EQ(listedName({"tail", false}, volume, snapshot), "::123456789abc4def:tail");
}

// Goal:   no two snapshots of a volume are listed under one name, and each name can be sent back by a client.
// Method: random paths over the few bytes that matter, long and short, each with a UUID of its own.
TEST(SnapshotNames, AreOneToOneBoundedAndSurviveTheWayBack) {
  std::mt19937 random(20260301);
  const std::string_view bytes = "/::%%3A25ab\xC3\xA4\xFF\x0A.";
  std::map<std::string, std::string> pathOf;
  for (int i = 0; i < 20'000; ++i) {
    std::string path = i % 3 ? "" : place;
    const std::size_t length = i % 10 ? 1 + random() % 8 : 200 + random() % 80;
    for (std::size_t k = 0; k < length; ++k) path += bytes[random() % bytes.size()];
    // Components are never empty.
    while (path.starts_with('/')) path.erase(0, 1);
    for (std::size_t at; (at = path.find("//")) != path.npos;) path.erase(at, 1);
    if (path.empty() || path.ends_with('/')) path += 'e';
    Uuid uuid;
    for (std::uint8_t& byte : uuid.bytes) byte = static_cast<std::uint8_t>(random());
    const std::string name = listedName({path, true}, volume, uuid);
    const auto [known, isNew] = pathOf.emplace(name, path);
    EXPECT_TRUE(isNew || known->second == path) << name;
    EXPECT_TRUE(isValidUtf8(name));
    EXPECT_TRUE(isNameText(name, NameEscapes::controls)) << name;
    const bool isOurs =
        path.starts_with(place) && path.find('/', place.size()) == path.npos && path[place.size()] != ':';
    EXPECT_EQ(isOurs, !name.starts_with(':'));
    EXPECT_TRUE(isOurs || name.size() <= 240);
    const auto fileName = placeFileName(name);
    EXPECT_TRUE(!isOurs || !fileName || *fileName == path.substr(place.size()));
  }
}

TEST(SnapshotNames, IdentitiesAscendWithTransactionsAndTellTwinsApart) {
  const auto xid = [](std::uint64_t transaction, std::uint64_t id) {
    btrfs::Subvolume made;
    made.otransid = transaction;
    made.id = id;
    return snapshotXid(made).value;
  };
  EXPECT_EQ(xid(1, 256), 65536u + 256);
  EXPECT_EQ(xid(7, 65536 + 300), 7u * 65536 + 300);
  EXPECT_LT(xid(7, 65535), xid(8, 256));
  EXPECT_NE(xid(7, 300), xid(7, 301));
}

}  // namespace
}  // namespace quillmark::os
