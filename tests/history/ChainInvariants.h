// brokenInvariant: what is wrong with the chains of a history database, told in a sentence; empty when nothing is.
// Looks at all of it, and at every tree that can be rebuilt: for tests of whatever writes histories.
// Threads: as the store, or as the connection.
#pragma once

#include <string>

namespace quillmark {

class Dispatch;
class HistoryConnection;
class SnapshotHistoryStore;

[[nodiscard]] std::string brokenInvariant(SnapshotHistoryStore& store, Dispatch& dispatch);
// Inside a read of the caller's.
[[nodiscard]] std::string brokenInvariant(HistoryConnection& connection, Dispatch& dispatch);

}  // namespace quillmark
