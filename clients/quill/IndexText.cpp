#include "quill/IndexText.h"

#include <fmt/format.h>

#include <algorithm>

#include "quill/TerminalText.h"

namespace quillmark::cli {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t widestBar = 24;
constexpr std::size_t narrowestBar = 6;
constexpr std::size_t leastName = 12;
// Below this a rate is noise.
constexpr milliseconds leastElapsed{1000};
constexpr milliseconds longStill{1000};

std::string repeated(std::string_view text, std::size_t times) {
  std::string result;
  for (; times > 0; --times) result += text;
  return result;
}

double secondsOf(std::chrono::nanoseconds span) { return std::chrono::duration<double>(span).count(); }

// Past what was expected nobody knows how much is left.
bool isExpected(const IndexRun& run) { return run.expected && *run.expected > 0 && run.files <= *run.expected; }

// A guess: nothing is called done by it.
double share(const IndexRun& run) {
  return std::min(0.99, static_cast<double>(run.files) / static_cast<double>(*run.expected));
}

std::string figures(const IndexRun& run) {
  std::string text = fmt::format("{} files", grouped(run.files));
  if (run.elapsed < leastElapsed || run.files == 0) return text;
  if (run.stillFor >= longStill) return text + "  still working  " + shownSpan(duration_cast<seconds>(run.elapsed));
  const double rate = static_cast<double>(run.files) / secondsOf(run.elapsed);
  text += fmt::format("  {}/s", grouped(static_cast<std::int64_t>(rate)));
  if (!isExpected(run)) return text + "  " + shownSpan(duration_cast<seconds>(run.elapsed));
  const std::chrono::duration<double> left(static_cast<double>(*run.expected - run.files) / rate);
  return text + fmt::format("  {} left", shownSpan(std::max(seconds(1), duration_cast<seconds>(left))));
}

}  // namespace

std::string barOf(const IndexRun& run, std::size_t width) {
  std::string tail = "  " + figures(run);
  if (isExpected(run)) {
    tail = fmt::format("  {:2.0f}%", share(run) * 100) + tail;
    const std::size_t taken = leastName + displayWidth(tail) + 2;
    const std::size_t cells = taken < width ? std::min(widestBar, width - taken) : 0;
    if (cells >= narrowestBar) {
      const auto full = static_cast<std::size_t>(share(run) * static_cast<double>(cells));
      tail = "  " + repeated("━", full) + repeated("─", cells - full) + tail;
    }
  }
  const std::size_t tailWidth = displayWidth(tail);
  const std::size_t forName = std::max(leastName, width > tailWidth ? width - tailWidth : 0);
  const std::string line = shortened(shownText(run.name), forName) + tail;
  return displayWidth(line) <= width ? line : shortened(line, width);
}

std::string grouped(std::int64_t number) {
  std::string digits = std::to_string(number);
  const std::size_t first = number < 0 ? 1 : 0;
  for (std::size_t at = digits.size(); at > first + 3;) {
    at -= 3;
    digits.insert(at, ",");
  }
  return digits;
}

std::string shownSpan(std::chrono::nanoseconds span) {
  const auto whole = duration_cast<seconds>(span).count();
  if (whole >= 3600) return fmt::format("{} h {} min", whole / 3600, whole / 60 % 60);
  if (whole >= 60) return fmt::format("{} min {} s", whole / 60, whole % 60);
  if (whole == 0) return fmt::format("{} ms", duration_cast<milliseconds>(span).count());
  if (whole >= 10 || span % seconds(1) == span.zero()) return fmt::format("{} s", whole);
  return fmt::format("{:.1f} s", secondsOf(span));
}

}  // namespace quillmark::cli
