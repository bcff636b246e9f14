#include "service/ShortText.h"

namespace quillmark {

std::string shortText(std::string_view text) {
  if (text.size() <= maxShortTextBytes) return std::string(text);
  std::size_t cut = maxShortTextBytes;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return std::string(text.substr(0, cut)) + "...";
}

}  // namespace quillmark
