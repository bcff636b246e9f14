#include "scheduling/rules/SnapshotCadence.h"

namespace quillmark {
namespace {

struct Row {
  std::string_view word;
  double interval;
  double lifespan;
  int defaultRetention;
  int mostRetained;
};

constexpr std::array<Row, allCadences.size()> rows{{
    {"freq", 900, 3600, 4, 4},
    {"hourly", 3600, 86400, 24, 24},
    {"daily", 86400, 604800, 7, 7},
    {"weekly", 604800, 2592000, 4, 4},
    {"monthly", 2592000, 31536000, 0, 12},
}};

const Row& row(SnapshotCadence cadence) { return rows[static_cast<std::size_t>(cadence)]; }

}  // namespace

std::string_view word(SnapshotCadence cadence) { return row(cadence).word; }

std::optional<SnapshotCadence> cadence(std::string_view text) {
  for (const SnapshotCadence known : allCadences) {
    if (word(known) == text) return known;
  }
  return std::nullopt;
}

Seconds interval(SnapshotCadence cadence) { return Seconds(row(cadence).interval); }
Seconds naturalLifespan(SnapshotCadence cadence) { return Seconds(row(cadence).lifespan); }
int defaultRetention(SnapshotCadence cadence) { return row(cadence).defaultRetention; }
int mostRetained(SnapshotCadence cadence) { return row(cadence).mostRetained; }

}  // namespace quillmark
