// JSON of every record: what decodes encodes to a text that decodes to the same record; the rest is an error.
#include <cstdlib>

#include "base/Error.h"
#include "journal/HelperEvent.h"
#include "scheduling/rules/HelperSettings.h"
#include "scheduling/rules/SchedulePolicy.h"
#include "snapshots/APFSVolume.h"
#include "wire/Json.h"
#include "wire/Records.h"

namespace {

template <class Record>
void roundTrip(std::string_view text) {
  using namespace quillmark;
  try {
    const auto records = decodeJson<std::vector<Record>>(text);
    if (decodeJson<std::vector<Record>>(encodeJson(records)) != records) std::abort();
  } catch (const Error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillmark;
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  using Check = void (*)(std::string_view);
  static constexpr Check checks[] = {
      roundTrip<SnapshotRecord>,      roundTrip<SnapshotMountSpec>,  roundTrip<SnapshotMountOutcome>,
      roundTrip<SnapshotPathOutcome>, roundTrip<SnapshotDeleteSpec>, roundTrip<SnapshotNameOutcome>,
      roundTrip<HelperHealthStatus>,  roundTrip<SchedulePolicy>,     roundTrip<HelperSettings>,
      roundTrip<HelperEvent>,         roundTrip<APFSVolume>};
  checks[data[0] % std::size(checks)](text);
  return 0;
}
