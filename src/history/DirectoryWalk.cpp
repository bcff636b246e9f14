#include "history/DirectoryWalk.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "history/ContentWitness.h"
#include "history/Retries.h"
#include "platform/dispatch.h"

namespace quillmark {
namespace {

bool isOneOf(int code, std::initializer_list<int> codes) {
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

// What reading names one by one may get around.
bool allowsNames(int code) {
  return isOneOf(code, {EPERM, EINTR, EDEADLK, EACCES, ENOTSUP, ENAMETOOLONG, ENOSYS, EOPNOTSUPP});
}

bool isDenial(int code) { return isOneOf(code, {EPERM, EINTR, EACCES, ENAMETOOLONG}); }

// Between two looks at whether the walk is to end.
constexpr std::size_t recordsPerLook = 4096;

unsigned workerCount(const ScanRequest& request, DirectoryReader& reader) {
  if (!request.parallel) return 1;
  return std::clamp(reader.processorCount(), 4U, 6U) - 2;
}

}  // namespace

DirectoryWalk::DirectoryWalk(Dispatch& dispatch, DirectoryReader& reader, OpenTree& tree, const ScanRequest& request,
                             ScanCollector& collector, ScanStats& stats)
    : dispatch_(dispatch), reader_(reader), tree_(tree), request_(request), collector_(collector), stats_(stats),
      mutex_(dispatch), changed_(dispatch) {}

SnapshotIndex::EntryBuckets DirectoryWalk::run() {
  {
    MutexLock lock(mutex_);
    stack_.push_back({"", tree_.root().inode});
  }
  if (const unsigned workers = workerCount(request_, reader_); workers == 1) {
    work();
  } else {
    const auto queue = dispatch_.makeQueue(
        {.label = "com.harrowfern.quillmark.scan", .concurrent = true, .qualityOfService = request_.qos});
    Group group(dispatch_);
    for (unsigned i = 0; i < workers; ++i) {
      group.enter();
      queue->async([&] {
        work();
        group.leave();
      });
    }
    group.wait();
  }
  MutexLock lock(mutex_);
  if (failure_) throw Error(*failure_);
  return std::move(buckets_);
}

void DirectoryWalk::work() {
  try {
    const auto lowered = request_.lowPriority ? reader_.lowerPriority() : nullptr;
    workThroughFrames();
  } catch (const std::exception& exception) {
    fail(asError(exception));
  }
}

void DirectoryWalk::workThroughFrames() {
  ScanCollector::Entries entries;
  Batch batch;
  while (const std::optional<Frame> frame = nextFrame()) {
    std::vector<Frame> found;
    try {
      enumerate(frame->path, batch);
      handIn(*frame, batch.records, entries, found);
    } catch (const std::exception& exception) {
      fail(asError(exception));
      found.clear();
    }
    finishFrame(std::move(found));
  }
  mergeEntries(std::move(entries));
}

// A directory that was found takes about as much as is counted for its entry: the path of each counts as a whole there.
void DirectoryWalk::handIn(const Frame& frame, const DirectoryRecords& records, ScanCollector::Entries& entries,
                           std::vector<Frame>& found) {
  const ScanParent parent{frame.path, frame.inode};
  for (std::size_t i = 0; i < records.size(); ++i) {
    const auto [name, facts] = records[i];
    if (collector_.take(entries, parent, name, facts)) {
      found.push_back({frame.path + "/" + std::string(name), facts.inode});
    }
    const bool looks = (i + 1) % recordsPerLook == 0;
    // One thread alone can tell each step; several tell theirs a directory at a time.
    if (!request_.parallel || looks) collector_.count(entries);
    if (looks && collector_.isCancelled()) throw posixError("scan", request_.root, ECANCELED);
  }
  collector_.count(entries);
}

std::optional<DirectoryWalk::Frame> DirectoryWalk::nextFrame() {
  MutexLock lock(mutex_);
  while (stack_.empty() && active_ > 0 && !failure_) changed_.wait(mutex_);
  if (failure_ || stack_.empty()) return std::nullopt;
  Frame frame = std::move(stack_.back());
  stack_.pop_back();
  ++active_;
  return frame;
}

void DirectoryWalk::finishFrame(std::vector<Frame> found) {
  MutexLock lock(mutex_);
  --active_;
  if (!failure_) std::move(found.begin(), found.end(), std::back_inserter(stack_));
  changed_.notifyAll();
}

void DirectoryWalk::fail(Error error) {
  MutexLock lock(mutex_);
  if (!failure_) failure_ = std::move(error);
  stack_.clear();
  changed_.notifyAll();
}

void DirectoryWalk::mergeEntries(ScanCollector::Entries entries) {
  MutexLock lock(mutex_);
  splice(buckets_, std::move(entries.buckets));
}

void DirectoryWalk::enumerate(const std::string& path, Batch& into) {
  into.records.clear();
  std::optional<Failure> failed = readInBulk(path, into);
  if (failed && allowsNames(failed->code)) {
    stats_.addBulkFallback();
    into.records.clear();
    failed = readByNames(path, into);
  }
  if (!failed) return;
  if (path.empty() || !isForgiven(path, failed->code)) throw Error(failed->error);
  into.records.clear();
}

bool DirectoryWalk::isForgiven(const std::string& path, int code) {
  if (code == ENOENT) return true;
  const auto isDataless = [&] {
    const auto answer = retried(dispatch_, [&] { return tree_.isDataless(path); });
    return answer && *answer;
  };
  if (code == EDEADLK || (isOneOf(code, {EPERM, EINTR}) && isDataless())) {
    stats_.addDatalessDirectory();
    return true;
  }
  if (!request_.tolerant || !isDenial(code)) return false;
  stats_.addDeniedDirectory(absolute(path));
  return true;
}

std::optional<DirectoryWalk::Failure> DirectoryWalk::readInBulk(const std::string& path, Batch& batch) {
  DirectoryRecords& into = batch.records;
  const auto directory = retried(dispatch_, [&] { return tree_.open(path); });
  if (!directory) return failure("open ", path, directory.error());
  for (;;) {
    if (auto ended = mustEnd(batch)) return ended;
    std::size_t at = into.size();
    const auto more = retried(dispatch_, [&] { return (*directory)->readRecords(into); });
    if (!more && more.error() == EBADMSG) {
      return Failure{
          0, Error(std::string(snapshotScannerDomain), 2, "Malformed bulk directory record in " + absolute(path))};
    }
    if (!more) return failure("getattrlistbulk ", path, more.error());
    if (!*more) return std::nullopt;
    for (; at < into.size(); ++at) {
      const auto [name, facts] = into[at];
      const bool isAsked = facts.type == FileType::regular && !facts.hasGeneration && !facts.isPlaceholder;
      if (isAsked) into.factsOf(at).generation = contentWitness(**directory, std::string(name), facts);
    }
  }
}

std::optional<DirectoryWalk::Failure> DirectoryWalk::readByNames(const std::string& path, Batch& into) {
  const auto directory = retried(dispatch_, [&] { return tree_.opendir(path); });
  if (!directory) return failure("opendir ", path, directory.error());
  for (;;) {
    const auto names = (*directory)->readNames();
    if (!names) return failure("readdir ", path, names.error());
    if (names->empty()) return std::nullopt;
    for (const std::string& name : *names) {
      if (auto ended = mustEnd(into)) return ended;
      if (auto failed = readEntry(**directory, path, name, into.records)) return failed;
    }
  }
}

std::optional<DirectoryWalk::Failure> DirectoryWalk::readEntry(OpenDirectory& directory, const std::string& path,
                                                               const std::string& name, DirectoryRecords& into) {
  auto facts = retried(dispatch_, [&] { return directory.lstat(name); });
  if (facts) {
    if (facts->type == FileType::regular) facts->generation = contentWitness(directory, name, *facts);
    into.add(name, *facts);
    return std::nullopt;
  }
  if (facts.error() == ENOENT) return std::nullopt;
  const bool toleratesDenial = request_.tolerant && !path.empty();
  if (!toleratesDenial || !isDenial(facts.error())) return failure("lstat ", path + "/" + name, facts.error());
  stats_.addDeniedEntry(absolute(path + "/" + name));
  return std::nullopt;
}

std::optional<DirectoryWalk::Failure> DirectoryWalk::mustEnd(Batch& batch) {
  const std::size_t bytes = batch.records.memoryBytes();
  if (bytes > batch.counted) collector_.working().take(bytes - std::exchange(batch.counted, bytes));
  if (!collector_.isCancelled()) return std::nullopt;
  return Failure{ECANCELED, posixError("scan", request_.root, ECANCELED)};
}

std::string DirectoryWalk::absolute(const std::string& path) const {
  if (path.empty()) return request_.root;
  return request_.root == "/" ? path : request_.root + path;
}

DirectoryWalk::Failure DirectoryWalk::failure(const char* operation, const std::string& path, int code) const {
  return {code, Error(std::string(posixErrorDomain), code, operation + absolute(path) + ": " + errnoText(code))};
}

}  // namespace quillmark
