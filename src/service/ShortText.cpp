#include "service/ShortText.h"

namespace quillmark {

std::string shortText(std::string_view text, std::size_t most) {
  if (text.size() <= most) return std::string(text);
  std::size_t cut = most;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return std::string(text.substr(0, cut)) + "...";
}

}  // namespace quillmark
