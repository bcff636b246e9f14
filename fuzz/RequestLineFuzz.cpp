// Request lines as they come from a peer, in pieces: the reader gives the same lines however they are cut, and each is a call of a
// served command with arguments of its types, or a refusal; either way the answer is a line that a client can read.
#include <cstdlib>

#include "platform/linux/TransportLines.h"
#include "wire/JsonText.h"
#include "wire/Rpc.h"

namespace {

using namespace quillmark;

std::vector<std::string> linesOf(std::string_view bytes, std::size_t piece) {
  std::vector<std::string> lines;
  os::LineSplitter splitter(1 << 16);
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    if (!splitter.feed(bytes.substr(at, piece), [&](std::string line) { lines.push_back(std::move(line)); })) break;
  }
  return lines;
}

void serve(std::string_view line) {
  const auto decoded = decodeCall(line);
  std::string answer;
  if (const auto* call = std::get_if<RpcCall>(&decoded)) {
    if (call->arguments.size() != call->command->arguments.size()) std::abort();
    (void)entryLine(*call->command, call->arguments);
    answer = encodeReply(call->id.value_or("null"), {"null", std::nullopt});
  } else {
    answer = encodeRefusal(std::get<RpcRefusal>(decoded));
  }
  if (answer.find('\n') != std::string::npos) std::abort();
  const ParsedJson readable(answer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string> lines = linesOf(bytes, size + 1);
  if (lines != linesOf(bytes, 1 + size / 3)) std::abort();
  for (const std::string& line : lines) serve(line);
  return 0;
}
