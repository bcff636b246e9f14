#include <gtest/gtest.h>

#include <cstring>

#include "platform/SnapshotCalls.h"
#include "snapshots/KernelSnapshotList.h"
#include "tests/base/Failures.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

// One record in the kernel's form, to be spoilt.
struct Entry {
  std::string name = "snap";
  std::uint32_t common = 0x82000201;
  std::int64_t seconds = 1000;
  std::int64_t nanoseconds = 500'000'000;
  std::uint64_t fileID = 77;
  std::int32_t nameOffset = 32;  // from byte 24
  std::optional<std::uint32_t> nameLength;
  std::optional<std::uint32_t> length;
  std::optional<std::size_t> cutTo;

  [[nodiscard]] std::string bytes() const {
    std::string text(56, '\0');
    const auto put = [&](std::size_t at, const auto& value) { std::memcpy(text.data() + at, &value, sizeof value); };
    text += name;
    put(0, length.value_or(static_cast<std::uint32_t>(text.size())));
    put(4, common);
    put(24, nameOffset);
    put(28, nameLength.value_or(static_cast<std::uint32_t>(name.size())));
    put(32, seconds);
    put(40, nanoseconds);
    put(48, fileID);
    if (cutTo) {
      text.resize(*cutTo);
      if (!length && *cutTo >= 4) put(0, static_cast<std::uint32_t>(*cutTo));
    }
    return text;
  }
};

std::vector<RawSnapshotEntry> parse(const std::string& bytes, int count) {
  std::vector<RawSnapshotEntry> entries;
  parseSnapshotList(std::as_bytes(std::span(bytes)), count, entries);
  return entries;
}

TEST(KernelSnapshotList, readsRecordAfterRecord) {
  Entry second{.name = std::string("other\0\0", 7), .fileID = 78};
  const auto entries = parse(Entry{}.bytes() + second.bytes(), 2);
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0], (RawSnapshotEntry{"snap", 77, Date::from1970(1000.5)}));
  EXPECT_EQ(entries[1].name, "other");
  EXPECT_EQ(parse(Entry{.name = "a\xFFz"}.bytes(), 1)[0].name, "a\xEF\xBF\xBDz");
}

TEST(KernelSnapshotList, refusesEachMalformedRecordInTheSystemsWords) {
  struct Case {
    Entry entry;
    const char* detail;
  };
  const std::vector<Case> cases{
      {{.cutTo = 3}, "missing length field"},
      {{.length = 3}, "invalid length 3"},
      {{.length = 61}, "invalid length 61"},
      {{.cutTo = 23}, "missing returned-attributes set"},
      {{.common = 0x80000201}, "kernel omitted required attributes"},
      {{.common = 0x82000001}, "kernel omitted required attributes"},
      {{.common = 0x82000200}, "kernel omitted required attributes"},
      {{.cutTo = 31}, "missing name reference"},
      {{.cutTo = 47}, "missing creation time"},
      {{.nanoseconds = 1'000'000'000}, "invalid creation-time nanoseconds"},
      {{.nanoseconds = -1}, "invalid creation-time nanoseconds"},
      {{.cutTo = 55}, "missing 64-bit file ID"},
      {{.fileID = 0}, "zero file ID"},
      {{.nameLength = 0}, "invalid name range"},
      {{.nameOffset = -25}, "invalid name range"},
      {{.nameOffset = 33}, "invalid name range"},
      {{.nameLength = 0xFFFFFFFF}, "invalid name range"},
      {{.name = std::string(3, '\0')}, "empty snapshot name"},
  };
  for (const Case& bad : cases) {
    const Error error = failureOf([&] { (void)parse(Entry{}.bytes() + bad.entry.bytes(), 2); });
    EXPECT_EQ(error.description(), std::string("Malformed snapshot-list entry 1: ") + bad.detail);
    EXPECT_EQ(error.code(), static_cast<long>(QuillmarkErrorCode::snapshotListFailed));
  }
  // The name may lie anywhere within its entry, in front of its reference too.
  EXPECT_NO_THROW((void)parse(Entry{.nameOffset = -24, .nameLength = 4}.bytes(), 1));
}

}  // namespace
}  // namespace quillmark
