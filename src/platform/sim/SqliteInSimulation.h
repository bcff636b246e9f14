// SqliteInSimulation: lets SQLite live inside simulations: its mutexes park fibers, its waits, clock and random bits
// are the simulation's. Threads outside every simulation get what SQLite itself would do. Threads: the first call has
// to come before any database is open in the process, since it configures SQLite for good.
#pragma once

namespace quillmark::sim {

// Called by each simulation that starts; also makes SQLite draw its random bits anew, so that a seed repeats.
void runSqliteInSimulations();

}  // namespace quillmark::sim
