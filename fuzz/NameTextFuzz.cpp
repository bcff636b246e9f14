// Names as text: one-to-one from any bytes, and text that is let in names exactly one name.
#include <cstdlib>

#include "base/Text.h"
#include "platform/NameText.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillmark;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  for (const NameEscapes escapes : {NameEscapes::illFormed, NameEscapes::controls}) {
    const std::string text = nameText(bytes, escapes);
    if (!isValidUtf8(text) || nameBytes(text) != bytes || !isNameText(text, escapes)) std::abort();
    // Any input as a client's text: let in only if it comes back unchanged.
    if (isNameText(bytes, escapes) && nameText(nameBytes(bytes), escapes) != bytes) std::abort();
    const std::string shown = displayName(text);
    for (const char c : shown) {
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) std::abort();
    }
  }
  return 0;
}
