// Fault injection for the POSIX calls of the library, by linker interposition (--wrap) on the test
// binary: the library itself calls open, write, read, lseek64, ftruncate64, close, rename, remove,
// mkdir and time directly, and the wrappers decide per call whether to pass it on, fail it with a
// chosen errno, or let it transfer fewer bytes.
//
// Calls are counted from the last reset(). A rule fires at the nth counted call of its kind, once
// or at every call from the nth on.
#pragma once

#include <ctime>

namespace PosixFaults {

enum Call { kOpen, kWrite, kRead, kLseek64, kFtruncate64, kClose, kRename, kRemove, kMkdir };
constexpr int kCalls = kMkdir + 1;

// The nth call fails with error (errno) and result -1.
void failAt(Call call, int nth, int error, bool persistent = false);
// The nth call of write or read transfers at most bytes bytes (0: a write that makes no progress).
void limitAt(Call call, int nth, long bytes, bool persistent = false);
// How many calls of this kind were made since the last reset.
int calls(Call call);
// Bytes that read calls returned since the last reset.
long bytesRead();
// How many calls were failed or limited since the last reset.
int fired();
// Makes time() return t until reset; 0 restores the clock.
void setTime(std::time_t t);
// Disarms every rule, restores the clock and zeroes the counters.
void reset();

// Resets on construction and destruction, so one test's rules never leak into the next.
struct Scope {
  Scope() { reset(); }
  ~Scope() { reset(); }
};

}  // namespace PosixFaults
