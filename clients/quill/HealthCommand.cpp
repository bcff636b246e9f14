#include <fmt/format.h>

#include <array>

#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/TimeText.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

Cell stateCell(HelperSubsystemState state) {
  switch (state) {
    case HelperSubsystemState::healthy: return {"healthy", std::nullopt, Tone::good};
    case HelperSubsystemState::degraded: return {"degraded", std::nullopt, Tone::doubtful};
    case HelperSubsystemState::unavailable: return {"unavailable", std::nullopt, Tone::bad};
  }
  return {};
}

Table tableOf(const HelperHealthStatus& status) {
  const std::array parts{std::pair{"history", &status.history},   std::pair{"schedules", &status.schedules},
                         std::pair{"settings", &status.settings}, std::pair{"protection", &status.protection},
                         std::pair{"audit", &status.audit},       std::pair{"scheduler", &status.scheduler}};
  Table table{{{.head = "PART"}, {.head = "STATE"}, {.head = "DETAIL"}}, {}};
  for (const auto& [name, health] : parts) {
    table.rows.push_back({{name}, stateCell(health->state), {health->detail.value_or("")}});
  }
  return table;
}

void showFailedWrites(CommandContext& context, const AuditLogHealth& audit) {
  if (audit.failedWriteCount == 0) return;
  const auto at = [&](const auto& time) {
    return audit.lastFailureAt ? time(context.clock, *audit.lastFailureAt) : "";
  };
  const std::string why = audit.lastError.value_or("unknown error");
  if (context.output.forTerminal()) {
    context.output.line(fmt::format("Records of the activity log that couldn't be written: {}, the last at {}: {}",
                                    audit.failedWriteCount, at(shownTime), why));
  } else {
    context.output.table(
        {{}, {{{"failed-writes"}, {std::to_string(audit.failedWriteCount)}, {at(plainTime) + " " + why}}}});
  }
}

void showNotes(CommandContext& context, const std::vector<std::string>& notes) {
  for (const std::string& note : notes) {
    if (context.output.forTerminal()) {
      context.output.line("Note: " + note);
    } else {
      context.output.table({{}, {{{"note"}, {""}, {note}}}});
    }
  }
}

// The helper's own object, with one key more.
std::string withAudit(std::string health, const std::string& audit) {
  health.pop_back();
  return health + ",\"auditLog\":" + audit + "}";
}

}  // namespace

int run(CommandContext& context, const HealthRequest&) {
  const std::string answer = ask(context, "asking the helper", HelperHealth{}).value;
  const auto status = decodeJson<HelperHealthStatus>(answer);
  const std::string audit = ask(context, "asking the helper", GetAuditLogHealth{}).value;
  const auto auditHealth = decodeJson<AuditLogHealth>(audit);
  if (context.output.json()) {
    context.output.jsonText(withAudit(answer, audit));
    return exitDone;
  }
  context.output.table(tableOf(status));
  showFailedWrites(context, auditHealth);
  showNotes(context, status.notes.value_or(std::vector<std::string>()));
  return exitDone;
}

}  // namespace quillmark::cli
