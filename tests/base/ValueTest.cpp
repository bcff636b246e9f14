#include <gtest/gtest.h>

#include <memory>

#include "base/Date.h"
#include "base/Error.h"
#include "base/UniqueFunction.h"
#include "base/Uuid.h"

namespace quillmark {
namespace {

TEST(Uuid, readsOneFormInEitherCase) {
  const auto uuid = Uuid::parse("00112233-4455-6677-8899-AABBCCDDEEFF");
  ASSERT_TRUE(uuid);
  EXPECT_EQ(uuid->lower(), "00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(Uuid::parse(uuid->lower()), uuid);
  EXPECT_EQ(uuid->upper(), "00112233-4455-6677-8899-AABBCCDDEEFF");
}

TEST(Uuid, refusesEveryOtherForm) {
  for (const char* text : {"", "00112233-4455-6677-8899-AABBCCDDEEF", "00112233-4455-6677-8899-AABBCCDDEEFF0",
                           "00112233445566778899AABBCCDDEEFF0000", "00112233-4455-6677-8899-AABBCCDDEEFG",
                           "{0112233-4455-6677-8899-AABBCCDDEEF}", "0011223344-55-6677-8899-AABBCCDDEEFF"}) {
    EXPECT_FALSE(Uuid::parse(text)) << text;
  }
}

TEST(VolumeUuid, meetsItselfInAnySpelling) {
  EXPECT_EQ(VolumeUuid("00AA"), VolumeUuid("00aa"));
  EXPECT_NE(VolumeUuid("00AA"), VolumeUuid("00AB"));
}

TEST(Date, writesUtcWithWholeSeconds) {
  EXPECT_EQ(iso8601(Date::fromReference(0)), "2001-01-01T00:00:00Z");
  EXPECT_EQ(iso8601(Date::from1970(951782399.999)), "2000-02-28T23:59:59Z");
  EXPECT_EQ(iso8601(Date::from1970(-1)), "1969-12-31T23:59:59Z");
  EXPECT_EQ(parseIso8601("2000-02-28T23:59:59Z"), Date::from1970(951782399));
  for (const char* text : {"", "2000-02-30T00:00:00Z", "2000-02-28T24:00:00Z", "2000-02-28T23:59:60Z",
                           "2000-02-28 23:59:59Z", "2000-02-28T23:59:59", "2000-02-28T23:59:59Zx"}) {
    EXPECT_FALSE(parseIso8601(text)) << text;
  }
}

TEST(Error, namesTheCallItsSubjectAndTheReason) {
  const Error error = posixError("open", "/nowhere", 2);
  EXPECT_EQ(error.description(), "open(/nowhere) failed: No such file or directory");
  EXPECT_EQ(error.domain(), posixErrorDomain);
  EXPECT_EQ(asError(std::runtime_error("odd")).description(), "odd");
}

TEST(UniqueFunction, ownsWhatItCapturesAndLetsGoOfIt) {
  auto token = std::make_shared<int>(7);
  UniqueFunction<int(int)> add(
      [owned = std::make_unique<std::shared_ptr<int>>(token)](int by) { return **owned + by; });
  EXPECT_EQ(add(1), 8);
  UniqueFunction<int(int)> moved = std::move(add);
  EXPECT_FALSE(static_cast<bool>(add));
  EXPECT_EQ(token.use_count(), 2);
  moved = nullptr;
  EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace quillmark
