// What a crash can leave of a recorded run of file-system calls. Every prefix of the calls (what a
// killed process leaves) is taken, calls made safe by a later sync are kept, and the unsynced
// changes are kept or dropped in every combination (a seeded sample when many). "Any" drops them
// independently, as POSIX allows; "ordered" keeps directory changes in order, and a rename or
// removal only with the earlier writes to its file, as a journalling file system does.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "PosixFaults.h"

namespace CrashStates {

// One recorded call, with the file it concerns: an inode of this run's own numbering, or -1 for
// the directory, or -2 for none.
struct Op {
  PosixFaults::Recorded call;
  int inode;
  bool data, directory, barrier;  // changes a file's contents, changes the directory, syncs
};

std::vector<Op> resolve(const std::vector<PosixFaults::Recorded>& calls);

// The files by path that a crash after the first `end` calls leaves, keeping the calls in `kept`.
using Files = std::map<std::string, std::string>;
Files rebuild(const std::vector<Op>& ops, std::size_t end, const std::vector<bool>& kept);

// Hands every crash state of ops to check, with the number of calls made before the crash;
// returns how many states there were.
std::size_t forEach(const std::vector<Op>& ops, bool ordered, unsigned seed,
                    const std::function<void(std::size_t end, const Files& files)>& check);

}  // namespace CrashStates
