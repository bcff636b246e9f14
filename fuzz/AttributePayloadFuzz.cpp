// What the stores keep in attributes and files: what is read is written so that it reads the same; the rest is an error.
#include <cstdint>
#include <cstdlib>

#include "base/Error.h"
#include "snapshots/StorePayloads.h"

namespace {

template <class Read, class Write>
void roundTrip(std::string_view text, Read read, Write write) {
  try {
    const auto value = read(text);
    const std::string written = write(value);
    if (read(written) != value || write(read(written)) != written) std::abort();
  } catch (const quillmark::Error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillmark::StorePayloads;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  roundTrip(text, decodeProtectedXids, encodeProtectedXids);
  roundTrip(text, decodeXidsByVolume, encodeXidsByVolume);
  roundTrip(text, decodeTexts, encodeTexts);
  roundTrip(text, decodeTextsByVolume, encodeTextsByVolume);
  if (const auto xid = xidOfTagKey(text); xid && tagKey(*xid) != text) std::abort();
  return 0;
}
