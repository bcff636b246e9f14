// The note of a client program, without a signature yet: linked into the program, completed by codesign. The layout is
// that of CodeNote.h.
namespace {

struct Note {
  unsigned ownerBytes, descriptorBytes, type;
  char owner[12];
  char identifier[64];
  char team[16];
  char keyId[16];
  unsigned char signature[64];
};
static_assert(sizeof(Note) == 24 + 160);

__attribute__((section(".note.quillmark"), used, aligned(4)))
const Note note = {10, 160, 1, "Quillmark", QUILLMARK_IDENTIFIER, QUILLMARK_TEAM, "unsigned", {0}};

}  // namespace
