// The file of a comparison: any bytes give a result or an error, and what was read writes a file that reads the same.
#include <cstdlib>
#include <string>

#include "base/Error.h"
#include "wire/DiffResult.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillmark;
  DiffResult result;
  try {
    result = readDiffResult({reinterpret_cast<const char*>(data), size});
  } catch (const Error&) {
    return 0;
  }
  std::string file;
  writeDiffResult(result, [&](std::string_view piece) { file += piece; });
  if (readDiffResult(file) != result) std::abort();
  return 0;
}
