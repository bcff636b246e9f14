#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "base/Text.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "wire/Json.h"
#include "wire/JsonText.h"

namespace quillmark::cli {
namespace {

Cell size(const std::optional<std::uint64_t>& bytes) {
  if (!bytes) return {"", std::nullopt};
  return {shownSize(*bytes), std::to_string(*bytes)};
}

Table tableOf(const std::vector<APFSVolume>& volumes, bool full) {
  constexpr auto right = Column::Align::right;
  Table table{{{.head = "NAME", .mayBeCut = !full},
               {.head = "DEVICE"},
               {.head = "SIZE", .align = right},
               {.head = "USED", .align = right},
               {.head = "FREE", .align = right},
               {.head = "BUS", .mayBeLeft = !full},
               {.head = "MOUNTED AT", .mayBeCut = !full},
               {.head = "UUID", .mayBeLeft = !full}},
              {}};
  for (const APFSVolume& volume : volumes) {
    table.rows.push_back({{volume.name},
                          {volume.bsdName},
                          size(volume.totalBytes),
                          size(volume.usedBytes),
                          size(volume.availableBytes),
                          {volume.connectionBus.value_or("")},
                          {volume.mountPath.value_or("")},
                          {volume.id}});
  }
  return table;
}

using Unserved = std::vector<UnservedSubvolumesRecord>;

std::string counted(std::uint64_t count, const char* noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

// The volumes of a file system, for people: "Data and home".
std::string namesOn(const std::string& fileSystem, const Unserved& unserved, const std::vector<APFSVolume>& volumes) {
  std::vector<std::string> names;
  for (const APFSVolume& volume : volumes) {
    const auto isItsRecord = [&](const UnservedSubvolumesRecord& record) {
      return record.volumeUUID == volume.id && record.fileSystemUUID == fileSystem;
    };
    if (std::any_of(unserved.begin(), unserved.end(), isItsRecord)) names.push_back(volume.name);
  }
  return names.empty() ? fileSystem : join(names, " and ");
}

std::string noteOf(const StrandedSnapshotsRecord& stranded, const std::string& names) {
  const std::string beginning = fmt::format("{} beside {} {} of ", counted(stranded.snapshotCount, "snapshot"), names,
                                            stranded.snapshotCount == 1 ? "is" : "are");
  if (stranded.volumePath) {
    return beginning + fmt::format("the subvolume \"{}\", which isn't mounted: mount it to list and to delete them.",
                                   *stranded.volumePath);
  }
  return beginning + fmt::format(
                         "a volume that is gone ({}), as after a rollback. They go on taking space. Look at them "
                         "with the top level mounted (mount -o subvolid=5), in .quillmark/{}, and delete what "
                         "you don't need: btrfs subvolume delete.",
                         stranded.volumeUUID, asciiLower(stranded.volumeUUID));
}

std::string noteOf(const UnservedSubvolumesRecord& record, const std::string& name) {
  std::string paths = join(record.nestedSubvolumes, ", ");
  const std::uint64_t more = record.nestedSubvolumeCount - record.nestedSubvolumes.size();
  if (more > 0) paths += fmt::format(" and {} more", more);
  return fmt::format("The snapshots of {} leave {} out: {}. To have snapshots of one, mount it by itself.", name,
                     counted(record.nestedSubvolumeCount, "nested subvolume"), paths);
}

std::vector<std::string> notesOf(const Unserved& unserved, const std::vector<APFSVolume>& volumes) {
  std::vector<std::string> notes;
  std::set<std::string> told;  // file systems
  for (const UnservedSubvolumesRecord& record : unserved) {
    const auto volume = std::find_if(volumes.begin(), volumes.end(),
                                     [&](const APFSVolume& one) { return one.id == record.volumeUUID; });
    if (volume == volumes.end()) continue;
    if (record.nestedSubvolumeCount > 0) notes.push_back(noteOf(record, volume->name));
    if (!told.insert(record.fileSystemUUID).second) continue;
    for (const StrandedSnapshotsRecord& stranded : record.strandedSnapshots) {
      notes.push_back(noteOf(stranded, namesOn(record.fileSystemUUID, unserved, volumes)));
    }
  }
  return notes;
}

// The volumes as quill sees them, each with what the helper knows beside.
std::string withUnserved(const std::vector<APFSVolume>& volumes, const std::string& unserved) {
  ParsedJson listed(encodeJson(volumes));
  const ParsedJson answer(unserved);
  boost::json::array rows = listed.value().as_array();
  for (boost::json::value& row : rows) {
    boost::json::object& volume = row.as_object();
    for (const boost::json::value& record : answer.value().as_array()) {
      if (record.at("volumeUUID") == volume.at("id")) volume["unservedSubvolumes"] = record;
    }
  }
  return boost::json::serialize(rows);
}

// Only the helper may look there. Without it, or with one that can't tell, the volumes are shown all the same.
std::optional<std::string> askForUnserved(CommandContext& context) {
  try {
    return ask(context, "asking the helper", ListUnservedSubvolumes{}).value;
  } catch (const Error& failure) {
    if (context.output.forTerminal()) {
      context.output.note("what no snapshot holds isn't known without the helper: " + failure.description());
    }
    return std::nullopt;
  }
}

}  // namespace

int run(CommandContext& context, const VolumesRequest& request) {
  std::vector<APFSVolume> volumes;
  {
    const auto busy = context.busy("looking at the volumes");
    volumes = context.volumes.list(true);
  }
  if (context.output.json()) {
    const auto unserved = askForUnserved(context);
    context.output.jsonText(unserved ? withUnserved(volumes, *unserved) : encodeJson(volumes));
  } else if (volumes.empty() && context.output.forTerminal()) {
    context.output.line("No btrfs volume is mounted writable here.");
  } else {
    context.output.table(tableOf(volumes, request.full));
    if (!context.output.forTerminal()) return exitDone;
    const auto unserved = askForUnserved(context);
    if (!unserved) return exitDone;
    for (const std::string& note : notesOf(decodeJson<Unserved>(*unserved), volumes))
      context.output.line("Note: " + note);
  }
  return exitDone;
}

}  // namespace quillmark::cli
