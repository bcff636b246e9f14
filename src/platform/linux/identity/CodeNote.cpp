#include "platform/linux/identity/CodeNote.h"

#include <elf.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>
#include <vector>

namespace quillmark::os {
namespace {

constexpr std::size_t mostSegments = 64;
constexpr std::uint64_t mostNoteBytes = 64 * 1024;
constexpr std::string_view owner("Quillmark\0", 10);
constexpr std::uint32_t noteType = 1;
constexpr unsigned char hostByteOrder = std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

template <class Plain>
[[nodiscard]] bool readPlain(ReadAt read, std::uint64_t offset, Plain& into) {
  return read({reinterpret_cast<unsigned char*>(&into), sizeof into}, offset);
}

[[nodiscard]] bool isInside(std::uint64_t offset, std::uint64_t length, std::uint64_t whole) {
  return offset <= whole && length <= whole - offset;
}

// Printable characters, then nothing but zero bytes; one at least of each.
std::optional<std::string> textOf(std::span<const unsigned char> field) {
  const auto end = std::find(field.begin(), field.end(), 0);
  const bool isPrintable = std::all_of(field.begin(), end, [](unsigned char c) { return c > 0x20 && c < 0x7F; });
  const bool isFilled = std::all_of(end, field.end(), [](unsigned char c) { return c == 0; });
  if (end == field.begin() || end == field.end() || !isPrintable || !isFilled) return std::nullopt;
  return std::string(field.begin(), end);
}

std::optional<CodeNote> decode(std::span<const unsigned char> descriptor, std::uint64_t offset) {
  if (descriptor.size() != CodeNote::descriptorBytes) return std::nullopt;
  const auto identifier = textOf(descriptor.first(CodeNote::identifierBytes));
  const auto team = textOf(descriptor.subspan(CodeNote::identifierBytes, CodeNote::teamBytes));
  const auto keyId = textOf(descriptor.subspan(CodeNote::identifierBytes + CodeNote::teamBytes, CodeNote::keyIdBytes));
  if (!identifier || !team || !keyId) return std::nullopt;
  CodeNote note{.identifier = *identifier, .team = *team, .keyId = *keyId, .signature = {}, .offset = offset};
  std::copy_n(descriptor.data() + CodeNote::signaturePlace, signatureBytes, note.signature.begin());
  return note;
}

// What a file's notes came to: none of ours, one, or something that can't be trusted.
class Search final {
 public:
  explicit Search(ReadAt read) : read_(read) {}

  // A segment of notes; false ends the search.
  [[nodiscard]] bool take(const Elf64_Phdr& segment) {
    bytes_.resize(segment.p_filesz);
    if (!read_(bytes_, segment.p_offset)) return false;
    const std::size_t alignment = segment.p_align == 8 ? 8 : 4;
    std::size_t at = 0;
    while (bytes_.size() - at >= sizeof(Elf64_Nhdr)) {
      if (!takeNote(segment.p_offset, alignment, at)) return false;
    }
    return true;
  }
  [[nodiscard]] std::optional<CodeNote> result() { return std::move(found_); }

 private:
  [[nodiscard]] bool takeNote(std::uint64_t base, std::size_t alignment, std::size_t& at) {
    Elf64_Nhdr header;
    std::memcpy(&header, bytes_.data() + at, sizeof header);
    // 32-bit lengths in 64-bit sums: none of them wraps around.
    const auto rounded = [&](std::uint64_t length) { return (length + alignment - 1) / alignment * alignment; };
    const std::uint64_t name = at + sizeof header;
    const std::uint64_t descriptor = rounded(name + header.n_namesz);
    const std::uint64_t end = descriptor + header.n_descsz;
    if (end > bytes_.size()) return false;
    at = static_cast<std::size_t>(std::min<std::uint64_t>(rounded(end), bytes_.size()));
    if (!isOurs(header, name)) return true;
    if (found_) return false;
    found_ = decode(std::span(bytes_).subspan(descriptor, header.n_descsz), base + descriptor);
    return found_.has_value();
  }

  [[nodiscard]] bool isOurs(const Elf64_Nhdr& header, std::uint64_t name) const {
    return header.n_type == noteType && header.n_namesz == owner.size() &&
           std::memcmp(bytes_.data() + name, owner.data(), owner.size()) == 0;
  }

  const ReadAt read_;
  std::vector<unsigned char> bytes_;
  std::optional<CodeNote> found_;
};

[[nodiscard]] bool isReadable(const Elf64_Ehdr& header) {
  return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_ident[EI_CLASS] == ELFCLASS64 &&
         header.e_ident[EI_DATA] == hostByteOrder && header.e_phentsize == sizeof(Elf64_Phdr) && header.e_phnum > 0 &&
         header.e_phnum <= mostSegments;
}

}  // namespace

std::optional<CodeNote> findCodeNote(ReadAt read, std::uint64_t fileBytes) {
  Elf64_Ehdr header;
  if (fileBytes < sizeof header || !readPlain(read, 0, header) || !isReadable(header)) return std::nullopt;
  if (!isInside(header.e_phoff, header.e_phnum * sizeof(Elf64_Phdr), fileBytes)) return std::nullopt;
  Search search(read);
  for (std::size_t i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    if (!readPlain(read, header.e_phoff + i * sizeof segment, segment)) return std::nullopt;
    if (segment.p_type != PT_NOTE || segment.p_filesz == 0) continue;
    if (segment.p_filesz > mostNoteBytes || !isInside(segment.p_offset, segment.p_filesz, fileBytes)) {
      return std::nullopt;
    }
    if (!search.take(segment)) return std::nullopt;
  }
  return search.result();
}

}  // namespace quillmark::os
