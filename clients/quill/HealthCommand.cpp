#include <array>

#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
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

}  // namespace

int run(CommandContext& context, const HealthRequest&) {
  const std::string answer = ask(context, "asking the helper", HelperHealth{}).value;
  const auto status = decodeJson<HelperHealthStatus>(answer);
  if (context.output.json()) {
    context.output.jsonText(answer);
  } else {
    context.output.table(tableOf(status));
  }
  return exitDone;
}

}  // namespace quillmark::cli
