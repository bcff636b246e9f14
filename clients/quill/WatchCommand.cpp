#include <fmt/format.h>

#include <map>

#include "platform/clock.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/LogRows.h"
#include "quill/PushLine.h"
#include "quill/QuillCommands.h"
#include "quill/Schedules.h"
#include "quill/TerminalText.h"
#include "quill/TimeText.h"

namespace quillmark::cli {
namespace {

Table columnsOf(const TableStyle& style) {
  const bool mayBeCut = style.width > 0;
  return {{{.head = "TIME", .least = 19},
           {.head = "EVENT", .least = 10},
           {.head = "VOLUME", .mayBeCut = mayBeCut, .least = 12},
           {.head = "DETAIL"}},
          {}};
}

// The names of volumes are looked up once: this runs for days.
class Names {
 public:
  explicit Names(CommandContext& context) : context_(context) {}
  const std::string& of(const std::string& uuid) {
    const auto found = names_.find(uuid);
    if (found != names_.end()) return found->second;
    if (names_.size() >= mostKept) names_.clear();
    return names_[uuid] = uuid.empty() ? "" : volumeNameOf(context_, uuid);
  }

 private:
  static constexpr std::size_t mostKept = 256;
  CommandContext& context_;
  std::map<std::string, std::string> names_;
};

void print(CommandContext& context, LogRows& rows, Names& names, const RpcIncoming& push) {
  const Date now = context.clock.now();
  if (context.output.json()) {
    const std::string method = jsonString(push.selector);
    rows.add(shownJson(fmt::format(R"({{"method":{},"params":{}}})", method, push.params)) + "\n");
    return rows.flush();
  }
  const PushLine line = lineOf(push);
  const std::string& name = names.of(line.volumeUUID);
  if (context.output.forTerminal()) {
    rows.add({{{shownTime(context.clock, now)}, {line.event}, {name.empty() ? line.volumeUUID : name}, {line.detail}}});
  } else {
    rows.add(plainRow({{plainTime(context.clock, now)}, {line.event}, {name}, {line.volumeUUID}, {line.detail}}));
  }
  rows.flush();
}

}  // namespace

int run(CommandContext& context, const WatchRequest&) {
  HelperConnection& helper = context.helper.connection();
  context.endAtInterrupt();
  LogRows rows(context.output, columnsOf(context.output.style()));
  Names names(context);
  while (!context.output.readerGone()) print(context, rows, names, helper.nextPush());
  return exitDone;
}

}  // namespace quillmark::cli
