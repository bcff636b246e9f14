#include "quill/LogPrinter.h"

#include "quill/SnapshotReference.h"
#include "quill/TerminalText.h"
#include "quill/TimeText.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

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

// Names of snapshots fit into no column of such a terminal; their middle is what tells them apart.
bool isNarrow(bool full, std::size_t width) { return !full && width > 0 && width < 100; }

Table columnsOfLog(bool full, std::size_t width) {
  const bool mayBeCut = !full && width > 0;
  Table table{{{.head = "TIME"},
               {.head = "EVENT", .least = 16},
               {.head = "BY", .mayBeCut = mayBeCut},
               {.head = "VOLUME", .mayBeCut = mayBeCut}},
              {}};
  if (!isNarrow(full, width)) table.columns.push_back({.head = "SNAPSHOT", .mayBeCut = mayBeCut, .least = 30});
  table.columns.push_back({.head = "DETAIL", .mayBeCut = mayBeCut, .least = 12});
  return table;
}

Table columnsOfNotices(bool full, std::size_t width) {
  const bool mayBeCut = !full && width > 0;
  return {{{.head = "TIME"},
           {.head = "ABOUT", .least = 12},
           {.head = "VOLUME", .mayBeCut = mayBeCut},
           {.head = "NOTICE", .mayBeCut = mayBeCut, .least = 30}},
          {}};
}

Tone toneOf(const HelperNotification& notice) {
  if (notice.kind == HelperNotification::Kind::resolve) return Tone::good;
  return notice.importance == NotificationImportance::critical ? Tone::bad : Tone::plain;
}

}  // namespace

LogPrinter::LogPrinter(Output& output, Clock& clock, bool full)
    : output_(output), clock_(clock), full_(full), rows_(output, columnsOfLog(full, output.style().width)) {}

void LogPrinter::add(const HelperEvent& event) {
  if (output_.json()) return rows_.add(shownJson(encodeJson(event)) + "\n");
  if (!output_.forTerminal()) return rows_.add(plainLine(event));
  rows_.add(rowOf(event));
}

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

LogRows::Row LogPrinter::rowOf(const HelperEvent& event) const {
  const std::string snapshot = event.snapshotName.value_or("");
  LogRows::Row row{
      {{shownTime(clock_, event.timestamp)}, {std::string(label(event.kind))}, {who(event)}, {event.volumeName}}};
  std::vector<Cell>& namePlace = isNarrow(full_, output_.style().width) ? row.below : row.cells;
  namePlace.push_back({full_ ? snapshot : shortName(snapshot)});
  row.cells.push_back(detailOf(event));
  if (!event.succeeded) row.below.push_back({event.errorMessage.value_or(""), std::nullopt, Tone::bad});
  return row;
}

NoticePrinter::NoticePrinter(Output& output, Clock& clock, bool full)
    : output_(output), clock_(clock), rows_(output, columnsOfNotices(full, output.style().width)) {}

void NoticePrinter::add(const HelperNotification& notice) {
  if (output_.json()) return rows_.add(shownJson(encodeJson(notice)) + "\n");
  if (!output_.forTerminal()) return rows_.add(plainLine(notice));
  rows_.add(rowOf(notice));
}

std::string NoticePrinter::plainLine(const HelperNotification& notice) const {
  return plainRow({{plainTime(clock_, notice.timestamp)},
                   {std::string(word(notice.kind))},
                   {std::string(word(notice.category))},
                   {std::string(word(notice.importance))},
                   {notice.volumeName.value_or("")},
                   {notice.volumeUUID.value_or("")},
                   {notice.title},
                   {notice.message}});
}

LogRows::Row NoticePrinter::rowOf(const HelperNotification& notice) const {
  return {{{shownTime(clock_, notice.timestamp)},
           {std::string(word(notice.category))},
           {notice.volumeName.value_or("")},
           {notice.title, std::nullopt, toneOf(notice)}},
          {{notice.message}}};
}

}  // namespace quillmark::cli
