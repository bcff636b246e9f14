// What every VolumeAttributes does. A backend gives
//   attributes()             over one mounted volume
//   mountPoint(), uuid()     of that volume
//   makeReadOnly()           the mount takes no changes any more
//   mountAnother()           from here on another volume is mounted at the mount point
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/VolumeAttributes.h"

namespace quillmark::contract {

template <class Backend>
class VolumeAttributesSuite : public ::testing::Test {
 protected:
  SysResult<std::unique_ptr<OpenVolumeAttributes>> open() {
    return backend_.attributes().open(backend_.mountPoint(), backend_.uuid());
  }
  std::unique_ptr<OpenVolumeAttributes> opened() {
    auto attributes = open();
    EXPECT_TRUE(attributes) << "errno " << attributes.error();
    return attributes ? std::move(*attributes) : nullptr;
  }
  void expectValue(const std::string& name, const std::string& value) {
    const auto attributes = opened();
    const auto size = attributes->size(name);
    ASSERT_TRUE(size) << "errno " << size.error();
    EXPECT_EQ(*size, value.size());
    const auto read = attributes->read(name);
    ASSERT_TRUE(read) << "errno " << read.error();
    EXPECT_EQ(*read, value);
  }
  void expectNone(const std::string& name) {
    const auto attributes = opened();
    EXPECT_EQ(attributes->size(name).error(), ENODATA);
    EXPECT_EQ(attributes->read(name).error(), ENODATA);
    EXPECT_EQ(attributes->remove(name).error(), ENODATA);
  }

  const std::string name_ = "com.harrowfern.quillmark.contract";
  Backend backend_;
};

TYPED_TEST_SUITE_P(VolumeAttributesSuite);

TYPED_TEST_P(VolumeAttributesSuite, GivesBackWhatWasWrittenLast) {
  const auto attributes = this->opened();
  this->expectNone(this->name_);
  for (const std::string& value : {std::string("first"), std::string("\0\xff\n", 3), std::string(),
                                   std::string(maxVolumeAttributeBytes, 'x'), std::string("last")}) {
    ASSERT_TRUE(attributes->write(this->name_, value));
    this->expectValue(this->name_, value);
  }
  ASSERT_TRUE(attributes->write(this->name_ + "2", "another"));
  this->expectValue(this->name_, "last");
  ASSERT_TRUE(attributes->remove(this->name_));
  this->expectNone(this->name_);
  this->expectValue(this->name_ + "2", "another");
}

TYPED_TEST_P(VolumeAttributesSuite, RefusesAValuePastTheLimitAndKeepsTheOldOne) {
  const auto attributes = this->opened();
  ASSERT_TRUE(attributes->write(this->name_, "old"));
  EXPECT_EQ(attributes->write(this->name_, std::string(maxVolumeAttributeBytes + 1, 'x')).error(), E2BIG);
  this->expectValue(this->name_, "old");
}

TYPED_TEST_P(VolumeAttributesSuite, OpensOnlyTheVolumeThatIsMeant) {
  auto& attributes = this->backend_.attributes();
  const VolumeUuid meant = this->backend_.uuid();
  const std::string mountPoint = this->backend_.mountPoint();
  EXPECT_EQ(attributes.open(mountPoint, VolumeUuid("00000000-0000-4000-8000-000000000000")).error(), ESTALE);
  EXPECT_EQ(attributes.open(mountPoint + "/nothing", meant).error(), ENOENT);
  ASSERT_TRUE(this->opened()->write(this->name_, "kept"));
  this->backend_.mountAnother();
  EXPECT_EQ(this->open().error(), ESTALE);
}

TYPED_TEST_P(VolumeAttributesSuite, ReadsButDoesNotChangeWhatIsMountedReadOnly) {
  ASSERT_TRUE(this->opened()->write(this->name_, "kept"));
  this->backend_.makeReadOnly();
  const auto attributes = this->opened();
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->write(this->name_, "new").error(), EROFS);
  EXPECT_EQ(attributes->remove(this->name_).error(), EROFS);
  this->expectValue(this->name_, "kept");
}

REGISTER_TYPED_TEST_SUITE_P(VolumeAttributesSuite, GivesBackWhatWasWrittenLast,
                            RefusesAValuePastTheLimitAndKeepsTheOldOne, OpensOnlyTheVolumeThatIsMeant,
                            ReadsButDoesNotChangeWhatIsMountedReadOnly);

}  // namespace quillmark::contract
