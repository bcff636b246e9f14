#include "QuillWorld.h"
#include "quill/Failures.h"
#include "quill/SnapshotReference.h"
#include "wire/QuillmarkError.h"

namespace quillmark::cli {
namespace {

using testing::HasSubstr;
using testing::Not;

std::vector<SnapshotRecord> someSnapshots() {
  std::vector<SnapshotRecord> snapshots{
      snapshotNamed(manualName("2026-03-02", "before-upgrade"), 300),
      snapshotNamed(manualName("2026-03-01", "release.1"), 100),
      snapshotNamed("com.harrowfern.Quillmark.auto.daily.2026-03-01T00-00-00Z", 200),
      snapshotNamed(":old:2026", 50),
      snapshotNamed(manualName("2026-03-03", "100"), 400),
      snapshotNamed(manualName("2026-03-04", "twice"), 500),
      snapshotNamed(manualName("2026-03-05", "twice"), 600),
  };
  snapshots[2].displayName = "Überblick";
  return snapshots;
}

// The XID of what is meant, or minus the code of the failure.
long meant(const std::string& reference) {
  try {
    return static_cast<long>(resolveReference(someSnapshots(), reference).xid.value);
  } catch (const Error& error) {
    return -error.code();
  }
}

TEST(SnapshotReference, meansTheOneThatThePersonMeans) {
  const std::pair<const char*, long> cases[] = {
      {"latest", 600},
      {"latest~0", 600},
      {"latest~1", 500},
      {"latest~6", 50},
      {"latest~7", -1020},
      {"latest~", -1020},
      {"latest~x", -1020},
      {"latest~99999999999999999999", -1020},
      {"latestX", -1020},
      {"300", 300},
      {"0300", 300},
      {"300 ", -1020},
      {"999", -1020},
      {"100", -1022},  // one's XID, another's label
      {"before-upgrade", 300},
      {"before upgrade", 300},
      {"Before-upgrade", -1020},
      {"upgrade", -1020},
      {"release.1", 100},
      {"1", 100},  // what follows the last dot
      {"2026-03-02T00-00-00Z.before-upgrade", 300},
      {"daily.2026-03-01T00-00-00Z", 200},
      {"2026-03-01T00-00-00Z", 200},
      {"Überblick", 200},
      {":old:2026", 50},
      {"twice", -1022},
      {"com.harrowfern.Quillmark.manual.2026-03-04T00-00-00Z.twice", 500},
      {"com.harrowfern.Quillmark.manual.2026-03-04T00-00-00Z", -1020},
      {"/", -1020},
      {"", -static_cast<long>(ClientFault::wrongUse)},
  };
  for (const auto& [reference, expected] : cases) EXPECT_EQ(meant(reference), expected) << reference;
}

TEST(SnapshotReference, anAmbiguousOneNamesItsCandidatesUpToABound) {
  std::vector<SnapshotRecord> many;
  for (int day = 10; day < 30; ++day) {
    many.push_back(
        snapshotNamed(manualName("2026-03-" + std::to_string(day), "same"), 1000u + static_cast<unsigned>(day)));
  }
  try {
    (void)resolveReference(many, "same");
    FAIL() << "resolved";
  } catch (const Error& error) {
    EXPECT_EQ(QuillmarkError::codeOf(error), QuillmarkErrorCode::ambiguousSnapshotRef);
    EXPECT_THAT(error.description(), HasSubstr("20 snapshots"));
    EXPECT_THAT(error.recoverySuggestion(), HasSubstr("1010 (manual.2026-03-10T00-00-00Z.same)"));
    EXPECT_THAT(error.recoverySuggestion(), HasSubstr("and 12 more"));
    EXPECT_THAT(error.recoverySuggestion(), Not(HasSubstr("1018 ")));
  }
}

TEST(SnapshotReference, aFullNameWinsOverAnotherSnapshotsLabel) {
  std::vector<SnapshotRecord> snapshots{snapshotNamed("plain", 1), snapshotNamed(manualName("2026-03-01", "plain"), 2)};
  EXPECT_EQ(resolveReference(snapshots, "plain").xid, Xid{1});
  std::swap(snapshots[0], snapshots[1]);
  EXPECT_EQ(resolveReference(snapshots, "plain").xid, Xid{1});
}

TEST(SnapshotReference, theEmptyVolumeHasNoLatest) { EXPECT_THROW((void)resolveReference({}, "latest"), Error); }

}  // namespace
}  // namespace quillmark::cli
