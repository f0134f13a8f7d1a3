// Fault injection for the library's POSIX calls by linker interposition (--wrap): per call the
// wrappers pass it on, fail it with a chosen errno, or let it transfer fewer bytes. Calls are
// counted from the last reset(); a rule fires once, at the nth call of its kind, and a kind has
// one rule at a time.
#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace PosixFaults {

enum Call {
  kOpen,
  kWrite,
  kRead,
  kLseek64,
  kFtruncate64,
  kClose,
  kRename,
  kRemove,
  kMkdir,
  kFsync,
  kFdatasync
};
constexpr int kCalls = kFdatasync + 1;
// The name of a call, for messages.
const char* nameOf(Call call);

// The nth call fails with error (errno) and result -1.
void failAt(Call call, int nth, int error);
// The nth call of write or read transfers at most bytes bytes (0: a write that makes no progress).
void limitAt(Call call, int nth, long bytes);
// The nth call of this kind made by the calling thread from now on fails with error, once; other
// threads are not affected.
void failInThisThread(Call call, int nth, int error);
// How many calls of this kind were made since the last reset.
int calls(Call call);
// Bytes that read calls returned since the last reset.
long bytesRead();
// How many calls were failed or limited since the last reset.
int fired();
// Makes time() return t until reset; 0 restores the clock.
void setTime(std::time_t t);
// Makes time() return t from the moment the next call of this kind succeeds (a call that was slow
// to return, as seen by the clock).
void setTimeAfter(Call call, std::time_t t);
// Disarms every rule, restores the clock and zeroes the counters.
void reset();

// A call that changed the file system, as recording sees it: which one, its path (and the new
// path of a rename), the descriptor it made or used, and for a write the offset and the bytes
// written (for a truncation, the length in offset).
struct Recorded {
  Call call;
  std::string path, path2;
  int fd;
  long long offset;
  std::string data;
};
// Records every successful call that changes files or asks for them to be synced, in order, until
// the records are taken.
void startRecording();
std::vector<Recorded> takeRecording();
// How many calls have been recorded so far.
std::size_t takeRecordingSize();

// Resets on construction and destruction, so one test's rules never leak into the next.
struct Scope {
  Scope() { reset(); }
  ~Scope() { reset(); }
};

}  // namespace PosixFaults
