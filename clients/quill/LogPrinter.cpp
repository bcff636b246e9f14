#include "quill/LogPrinter.h"

#include "quill/SnapshotReference.h"
#include "quill/TerminalText.h"
#include "quill/TimeText.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

constexpr std::size_t firstRows = 200;
constexpr std::size_t enoughToWrite = 16 * 1024;

// The person; the program too, where it isn't the usual one of a reader of this.
std::string who(const HelperEvent& event) {
  const std::string client(label(event.client));
  if (!event.user || event.user->empty()) return client;
  return event.client == HelperEvent::Client::cli ? *event.user : *event.user + " (" + client + ")";
}

// What the other columns don't say already.
std::string_view restOf(const HelperEvent& event) {
  std::string_view rest = event.detail;
  const auto leaveOut = [&](std::string_view front) {
    if (rest.starts_with(front)) rest.remove_prefix(front.size());
  };
  leaveOut(event.snapshotName.value_or(""));
  leaveOut(" ");
  if (event.kind == HelperEvent::Kind::mountSnapshot) leaveOut("Mounted at ");
  if (event.kind == HelperEvent::Kind::unmountSnapshot) leaveOut("Unmounted ");
  return rest;
}

Cell detailOf(const HelperEvent& event) {
  if (!event.succeeded) return {"failed", std::nullopt, Tone::bad};
  return {std::string(restOf(event))};
}

Table emptyTable(bool full, std::size_t width) {
  const bool mayBeCut = !full && width > 0;
  const bool isNarrow = mayBeCut && width < 100;
  return {{{.head = "TIME"},
           {.head = "EVENT", .least = 16},
           {.head = "BY", .mayBeCut = mayBeCut},
           {.head = "VOLUME", .mayBeCut = mayBeCut, .mayBeLeft = isNarrow},
           {.head = "SNAPSHOT", .mayBeCut = mayBeCut, .least = 30},
           {.head = "DETAIL", .mayBeCut = mayBeCut, .least = 12}},
          {}};
}

}  // namespace

void LogPrinter::add(const HelperEvent& event) {
  printedAny_ = true;
  if (output_.json()) {
    text_ += jsonLine(event);
  } else if (output_.forTerminal()) {
    addRow(rowOf(event));
  } else {
    text_ += plainLine(event);
  }
  if (text_.size() >= enoughToWrite) flush();
}

void LogPrinter::flush() {
  if (!first_.empty()) layOut(first_);
  first_.clear();
  if (!text_.empty()) output_.laidOut(text_);
  text_.clear();
}

std::string LogPrinter::jsonLine(const HelperEvent& event) const { return shownJson(encodeJson(event)) + "\n"; }

std::string LogPrinter::plainLine(const HelperEvent& event) const {
  return plainRow({{plainTime(clock_, event.timestamp)},
                   {std::string(word(event.kind))},
                   {event.succeeded ? "ok" : "failed"},
                   {std::string(word(event.client))},
                   {event.user.value_or("")},
                   {event.volumeName},
                   {event.volumeUUID},
                   {event.snapshotName.value_or("")},
                   {std::to_string(event.durationMs)},
                   {event.detail},
                   {event.errorMessage.value_or("")}});
}

LogPrinter::Row LogPrinter::rowOf(const HelperEvent& event) const {
  const std::string snapshot = event.snapshotName.value_or("");
  Row row{{{shownTime(clock_, event.timestamp)},
           {std::string(label(event.kind))},
           {who(event)},
           {event.volumeName},
           {full_ ? snapshot : shortName(snapshot)},
           detailOf(event)},
          {}};
  if (!event.succeeded) row.failure = event.errorMessage.value_or("");
  return row;
}

void LogPrinter::addRow(Row row) {
  if (layout_) return layOut({std::move(row)});
  first_.push_back(std::move(row));
  if (first_.size() < firstRows) return;
  layOut(first_);
  first_.clear();
}

void LogPrinter::layOut(const std::vector<Row>& rows) {
  if (!layout_) {
    Table first = emptyTable(full_, output_.style().width);
    for (const Row& row : rows) first.rows.push_back(row.cells);
    layout_.emplace(first, output_.style());
    text_ += layout_->head();
  }
  for (const Row& row : rows) {
    text_ += layout_->row(row.cells);
    if (!row.failure.empty()) text_ += "  " + toned(shownText(row.failure), Tone::bad, output_.style().color) + "\n";
  }
}

}  // namespace quillmark::cli
