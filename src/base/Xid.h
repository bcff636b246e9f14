// Xid: the identity by which the whole system names a snapshot. Ascends with time on one volume and never returns.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>

namespace quillmark {

struct Xid {
  std::uint64_t value = 0;
  auto operator<=>(const Xid&) const = default;
};

}  // namespace quillmark

template <>
struct std::hash<quillmark::Xid> {
  std::size_t operator()(quillmark::Xid xid) const noexcept { return std::hash<std::uint64_t>{}(xid.value); }
};
