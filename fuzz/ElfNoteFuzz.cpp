// The notes of programs that anybody may have made: nothing is read outside the file, and a note that is found is whole.
#include <cstdlib>
#include <cstring>

#include "platform/linux/identity/CodeNote.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace quillmark::os;
  const auto read = [&](std::span<unsigned char> into, std::uint64_t offset) {
    if (offset > size || into.size() > size - offset) std::abort();
    std::memcpy(into.data(), data + offset, into.size());
    return true;
  };
  const auto note = findCodeNote(read, size);
  if (!note) return 0;
  if (note->signatureOffset() + signatureBytes > size) std::abort();
  if (std::memcmp(note->signature.data(), data + note->signatureOffset(), signatureBytes) != 0) std::abort();
  if (note->identifier.size() >= CodeNote::identifierBytes || note->identifier.find('\n') != std::string::npos)
    std::abort();
  return 0;
}
