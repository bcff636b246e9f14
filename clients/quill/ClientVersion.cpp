#include "quill/ClientVersion.h"

namespace quillmark::cli {

std::string_view clientVersion() { return QUILL_VERSION; }

}  // namespace quillmark::cli
