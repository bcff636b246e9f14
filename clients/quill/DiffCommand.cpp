#include <fmt/format.h>

#include <algorithm>

#include "base/Uuid.h"
#include "platform/Files.h"
#include "quill/CommandSteps.h"
#include "quill/DiffText.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/SnapshotReference.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {
namespace {

// Snapshots that aren't indexed are read for it: a call that takes long is waited for as long as the helper tells how
// that goes on.
class Patience final : public HelperConnection::Listener {
 public:
  explicit Patience(HelperConnection& helper) : helper_(helper) { helper_.listen(this); }
  ~Patience() override { helper_.listen(nullptr); }
  void told(const RpcIncoming&) override {}
  void quiet() override {}

 private:
  HelperConnection& helper_;
};

template <class Command>
std::string compared(CommandContext& context, const std::string& what, const Command& command) {
  const Patience patience(context.helper.connection());
  auto answer = ask(context, what, command);
  if (answer.warning) context.output.warn(*answer.warning);
  return std::move(answer.value);
}

// Our own user's file, by its owner alone.
DiffResult resultIn(CommandContext& context, const std::string& path) {
  try {
    const std::optional<std::string> file = readFile(context.posix, path);
    if (file) return readDiffResult(*file);
  } catch (const Error& error) {
    throw clientError(ClientFault::answerMalformed,
                      "The comparison was made, but its result can't be read: " + error.description());
  }
  throw clientError(ClientFault::answerMalformed, "The comparison was made, but its result is gone already.",
                    "Ask once more.");
}

std::string mountPointOf(CommandContext& context, const std::string& volumeUUID) {
  const VolumeUuid wanted(volumeUUID);
  for (const APFSVolume& volume : context.volumes.list(false)) {
    if (VolumeUuid(volume.id) == wanted) return volume.mountPath.value_or("");
  }
  return {};
}

// The part of an absolute path below a mount point; absent when it isn't below it.
std::optional<std::string> below(const std::string& mountPoint, const std::string& path) {
  if (mountPoint == "/" || path == mountPoint) return path == mountPoint ? "/" : path;
  if (!mountPoint.empty() && path.starts_with(mountPoint + "/")) return path.substr(mountPoint.size());
  return std::nullopt;
}

std::string subtreeMeant(CommandContext& context, const std::string& volumeUUID, const std::string& word) {
  const std::string path = context.volumes.absolutePath(word);
  const std::string mountPoint = mountPointOf(context, volumeUUID);
  if (mountPoint.empty()) return path;
  if (auto inside = below(mountPoint, path)) return *std::move(inside);
  throw wrongUse(fmt::format("\"{}\" isn't on this volume, which is mounted at {}.", path, mountPoint));
}

struct Pair {
  SnapshotRecord older, newer;
};

Pair pairMeant(const std::vector<SnapshotRecord>& snapshots, const std::vector<std::string>& words) {
  Pair pair{snapshotMeant(snapshots, words.at(0)), snapshotMeant(snapshots, words.at(1))};
  if (pair.newer.xid < pair.older.xid) std::swap(pair.older, pair.newer);
  return pair;
}

void noteUnindexed(CommandContext& context, const Pair& pair) {
  for (const SnapshotRecord& snapshot : {pair.older, pair.newer}) {
    if (snapshot.isIndexed || snapshot.xid.value == 0) continue;
    context.output.note(
        fmt::format("\"{}\" isn't indexed, so what changed in it isn't told. See: quill index", shownNameOf(snapshot)));
  }
}

DiffResult ofSnapshots(CommandContext& context, const DiffRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  const Pair pair = pairMeant(snapshotsOf(context, volume), request.words);
  const std::uint64_t older = pair.older.xid.value, newer = pair.newer.xid.value;
  if (request.subtree) {
    noteUnindexed(context, pair);
    const CompareSubtree call{volume, subtreeMeant(context, volume, *request.subtree), older, newer};
    return decodeDiffResult(compared(context, "comparing a folder's history", call));
  }
  const DiffSnapshots call{.volumeUUID = volume,
                           .xidA = older,
                           .nameA = pair.older.name,
                           .xidB = newer,
                           .nameB = pair.newer.name,
                           .includeTree = request.form == DiffForm::tree,
                           .ignoreExclusions = request.fullScan};
  return resultIn(context, compared(context, "comparing two snapshots", call));
}

// The exclusions are rules on a volume's paths.
std::string placeOnItsVolume(CommandContext& context, const std::string& path) {
  std::string longest = "/";
  for (const std::string& mountPoint : context.volumes.mountPoints()) {
    if (mountPoint.size() > longest.size() && below(mountPoint, path)) longest = mountPoint;
  }
  return below(longest, path).value_or("/");
}

DiffResult ofDirectories(CommandContext& context, const DiffRequest& request) {
  const std::string a = context.volumes.absolutePath(request.words.at(0));
  const std::string b = context.volumes.absolutePath(request.words.at(1));
  const CompareLocalPaths call{a, b, !request.fullScan, placeOnItsVolume(context, a)};
  return decodeDiffResult(compared(context, "reading both", call));
}

void keepKinds(DiffResult& result, const std::vector<std::string>& words) {
  std::set<DiffResult::ChangeKind> kinds;
  for (const std::string& word : words) kinds.insert(changeKindMeant(word));
  if (!kinds.empty()) std::erase_if(result.rows, [&](const auto& row) { return !kinds.contains(row.kind); });
}

void print(CommandContext& context, const DiffRequest& request, const DiffResult& result) {
  Output& output = context.output;
  if (output.json())
    return output.jsonText(request.form == DiffForm::summary ? summaryJson(result) : encodeDiffResult(result));
  if (output.forTerminal() && result.rows.empty() && request.form != DiffForm::tree) return output.line("No changes.");
  const auto pages = output.forTerminal() ? context.page() : nullptr;
  printDiff(result, {request.form, output.forTerminal(), output.style().color},
            [&](std::string_view piece) { output.laidOut(piece); });
}

}  // namespace

int run(CommandContext& context, const DiffRequest& request) {
  for (const std::string& word : request.kinds) static_cast<void>(changeKindMeant(word));  // before anything is asked
  DiffResult result = request.local ? ofDirectories(context, request) : ofSnapshots(context, request);
  const std::size_t rows = result.rows.size();
  keepKinds(result, request.kinds);
  print(context, request, result);
  if (result.truncated) {
    context.output.note(fmt::format("There are more changes than can be shown: these are the first {} of {} or more.",
                                    rows, result.totalRowCount));
  }
  return exitDone;
}

}  // namespace quillmark::cli
