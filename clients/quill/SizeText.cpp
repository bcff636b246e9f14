#include "quill/SizeText.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "base/Text.h"
#include "quill/Failures.h"

namespace quillmark::cli {
namespace {

constexpr std::string_view prefixes = "kmgtpe";
constexpr double tooMuch = 9.2e18;

// 0 for what is no unit.
double factorOf(std::string_view unit) {
  const std::string word = asciiLower(std::string(unit));
  if (word.empty() || word == "b") return 1;
  const std::size_t power = prefixes.find(word.front());
  if (power == std::string_view::npos) return 0;
  const std::string_view rest = std::string_view(word).substr(1);
  if (rest == "b" || rest.empty()) return std::pow(1000.0, static_cast<double>(power + 1));
  return rest == "ib" ? std::pow(1024.0, static_cast<double>(power + 1)) : 0;
}

}  // namespace

std::int64_t sizeMeant(std::string_view text) {
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, failure] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
  const char* const unit = std::find_if(rest, end, [](char c) { return c != ' '; });
  const double factor = failure == std::errc() ? factorOf({unit, static_cast<std::size_t>(end - unit)}) : 0;
  const double bytes = std::round(number * factor);
  if (factor == 0 || !(bytes >= 0) || bytes > tooMuch) {
    throw wrongUse("\"" + std::string(text) + "\" is no size.", "Sizes are written as 30GB, 28GiB, 1.5TB or in bytes.");
  }
  return static_cast<std::int64_t>(bytes);
}

}  // namespace quillmark::cli
