#include "platform/linux/TransportLines.h"

#include <algorithm>

namespace quillmark::os {
namespace {

constexpr std::size_t smallLine = 16 * 1024;
constexpr std::size_t chunkBytes = 64 * 1024;

}  // namespace

bool LineSplitter::feed(std::string_view bytes, FunctionRef<void(std::string)> line) {
  for (;;) {
    const std::size_t newline = bytes.find('\n');
    const std::string_view part = bytes.substr(0, newline);
    if (begun_.size() + part.size() > maxLineBytes_) return false;
    if (newline == std::string_view::npos) {
      begun_.append(part);
      return true;
    }
    if (begun_.empty()) {
      line(std::string(part));
    } else {
      begun_.append(part);
      line(std::exchange(begun_, {}));
    }
    bytes.remove_prefix(newline + 1);
  }
}

void LineQueue::append(std::string line) {
  bytes_ += line.size() + 1;
  if (line.size() > smallLine) {
    chunks_.push_back(std::move(line));
    chunks_.emplace_back("\n");  // apart, because a newline added to a full string would copy it
    return;
  }
  if (chunks_.empty() || chunks_.back().size() + line.size() >= chunkBytes) {
    chunks_.push_back(std::move(line));
  } else {
    chunks_.back().append(line);
  }
  chunks_.back() += '\n';
}

std::size_t LineQueue::next(std::span<iovec> pieces, std::size_t maxBytes) const {
  std::size_t filled = 0;
  std::size_t skip = sentOfFirst_;
  for (const std::string& chunk : chunks_) {
    if (filled == pieces.size() || maxBytes == 0) break;
    const std::size_t length = std::min(chunk.size() - skip, maxBytes);
    pieces[filled++] = {.iov_base = const_cast<char*>(chunk.data() + skip), .iov_len = length};
    maxBytes -= length;
    skip = 0;
  }
  return filled;
}

void LineQueue::consume(std::size_t bytes) {
  bytes_ -= bytes;
  while (bytes > 0) {
    const std::size_t left = chunks_.front().size() - sentOfFirst_;
    if (bytes < left) {
      sentOfFirst_ += bytes;
      return;
    }
    bytes -= left;
    chunks_.pop_front();
    sentOfFirst_ = 0;
  }
}

void LineQueue::clear() {
  chunks_.clear();
  chunks_.shrink_to_fit();
  sentOfFirst_ = 0;
  bytes_ = 0;
}

}  // namespace quillmark::os
