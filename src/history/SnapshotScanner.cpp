#include "history/SnapshotScanner.h"

#include <cerrno>

#include "base/Error.h"
#include "history/ContentWitness.h"
#include "history/DirectoryWalk.h"
#include "history/Retries.h"
#include "history/ScanCollector.h"
#include "history/ScanStats.h"
#include "history/WholeTreeWalk.h"
#include "platform/DirectoryReader.h"

namespace quillmark {
namespace {

FileFacts rootFacts(OpenTree& tree) {
  FileFacts facts = tree.root();
  if (facts.type == FileType::regular) facts.generation = contentWitness(tree);
  return facts;
}

// Anybody can make more names than the machine has memory for.
Error tooLarge(const std::string& root) {
  return Error(std::string(snapshotScannerDomain), 3, "Cannot scan " + root + ": its names take too much memory");
}

}  // namespace

SnapshotScanner::SnapshotScanner(Dispatch& dispatch, DirectoryReader& reader, Report note, Report warn,
                                 std::shared_ptr<TreeMemory> memory)
    : dispatch_(dispatch), reader_(reader), note_(std::move(note)), warn_(std::move(warn)),
      memory_(memory ? std::move(memory) : std::make_shared<TreeMemory>(reader.memorySize() / 2)) {}

SnapshotIndex::ShardedEntries SnapshotScanner::scan(const ScanRequest& request) {
  const auto opened = retried(dispatch_, [&] { return reader_.openTree(request.root); });
  if (!opened) {
    throw Error(std::string(snapshotScannerDomain), 1,
                "Cannot scan " + request.root + ": " + errnoText(opened.error()));
  }
  return scan(request, **opened);
}

SnapshotIndex::ShardedEntries SnapshotScanner::scan(const ScanRequest& request, OpenTree& tree) {
  Walked walked = walk(tree, request);
  SnapshotIndex::ShardedEntries entries(dispatch_, std::move(walked.buckets), request.isCancelled);
  entries.hold(std::move(walked.claim));
  if (request.isCancelled && request.isCancelled()) throw posixError("scan", request.root, ECANCELED);
  if (request.progress) request.progress(walked.processed);
  return entries;
}

SnapshotScanner::Walked SnapshotScanner::walk(OpenTree& tree, const ScanRequest& request) {
  Walked walked;
  if (tree.root().type == FileType::directory) {
    std::string reason;
    if (auto whole = walkAsWhole(tree, request, reason)) {
      walked = std::move(*whole);
    } else {
      if (!reason.empty() && note_) {
        note_("scanner: " + request.root + " can't be read as a whole (" + reason + "), reading its directories");
      }
      walked = walkDirectories(tree, request);
    }
  }
  ScanCollector::takeRoot(walked.buckets, rootFacts(tree));
  return walked;
}

std::optional<SnapshotScanner::Walked> SnapshotScanner::walkAsWhole(OpenTree& tree, const ScanRequest& request,
                                                                    std::string& reason) {
  const auto whole = tree.openWhole();
  int error = whole.error();
  if (whole) {
    ScanStats stats(dispatch_);
    ScanCollector collector(request, tree.ownPlace(), memory_, stats);
    WholeTreeWalk walk(dispatch_, reader_, request, collector);
    auto buckets = walk.run(**whole);
    error = buckets.error();
    const bool isEnd = buckets || collector.isTooLarge() || error == ECANCELED;
    if (isEnd) report(stats, request.root);
    if (collector.isTooLarge()) throw tooLarge(request.root);
    if (buckets) return Walked{std::move(*buckets), collector.processed(), collector.claim()};
  }
  if (error == ECANCELED) throw posixError("scan", request.root, ECANCELED);
  if (error != ENOTSUP) reason = errnoText(error);
  return std::nullopt;
}

SnapshotScanner::Walked SnapshotScanner::walkDirectories(OpenTree& tree, const ScanRequest& request) {
  ScanStats stats(dispatch_);
  ScanCollector collector(request, tree.ownPlace(), memory_, stats);
  try {
    auto buckets = DirectoryWalk(dispatch_, reader_, tree, request, collector, stats).run();
    if (collector.isTooLarge()) throw tooLarge(request.root);
    report(stats, request.root);
    return {std::move(buckets), collector.processed(), collector.claim()};
  } catch (const Error&) {
    report(stats, request.root);
    if (collector.isTooLarge()) throw tooLarge(request.root);
    throw;
  }
}

void SnapshotScanner::report(ScanStats& stats, const std::string& root) const {
  const auto told = stats.report(root);
  if (!told) return;
  const Report& to = told->isWarning && warn_ ? warn_ : note_;
  if (to) to(told->text);
}

}  // namespace quillmark
