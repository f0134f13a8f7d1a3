#include "PosixFaults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <mutex>

namespace PosixFaults {
namespace {

// One rule per kind: its nth call fails with error, or transfers at most bytes (error 0).
struct Rule {
  int nth = 0;  // 0: disarmed
  int error = 0;
  long bytes = -1;
};

Rule rules[kCalls];
std::atomic<int> counts[kCalls];
std::atomic<int> firedCount{0};
std::atomic<long> readBytes{0};
std::atomic<std::time_t> fixedTime{0};
std::atomic<int> timeAfterCall{-1};
std::atomic<std::time_t> timeAfter{0};
std::atomic<bool> recording{false};
std::mutex recordMutex;
std::vector<Recorded> records;

// Called only while recording, so that the calls cost nothing (no allocation) otherwise.
void record(Recorded r) {
  std::lock_guard<std::mutex> lock(recordMutex);
  if (recording) records.push_back(std::move(r));
}

// A rule of one thread alone.
thread_local Call threadCall;
thread_local int threadCountdown = 0;
thread_local int threadError = 0;

// Counts the call; true when it must fail (errno is set). A rule that only shortens the transfer
// lowers *limit instead.
bool inject(Call call, long* limit = nullptr) {
  const int n = ++counts[call];
  const bool own = threadCountdown > 0 && call == threadCall && --threadCountdown == 0;
  const Rule& r = own ? Rule{n, threadError} : rules[call];
  if (n != r.nth) return false;
  ++firedCount;
  if (r.error == 0 && limit) *limit = r.bytes;
  if (r.error != 0) errno = r.error;
  return r.error != 0;
}

// Passes a call on unless a rule fails it; one that succeeds is recorded with its paths, its
// descriptor and its offset (only while recording: nothing is built otherwise).
template <typename Real, typename... Args>
int passOrFail(Call call, const char* path, const char* path2, int fd, long long offset, Real real,
               Args... args) {
  const int r = inject(call) ? -1 : real(args...);
  if (r == 0 && recording) record({call, path, path2, fd, offset, ""});
  int expected = call;
  if (r == 0 && timeAfterCall.compare_exchange_strong(expected, -1)) fixedTime = timeAfter.load();
  return r;
}

}  // namespace

void failAt(Call call, int nth, int error) { rules[call] = Rule{nth, error, -1}; }
void limitAt(Call call, int nth, long bytes) { rules[call] = Rule{nth, 0, bytes}; }
void failInThisThread(Call call, int nth, int error) {
  threadCall = call;
  threadCountdown = nth;
  threadError = error;
}
int calls(Call call) { return counts[call]; }
int fired() { return firedCount; }
long bytesRead() { return readBytes; }
void setTime(std::time_t t) { fixedTime = t; }
void setTimeAfter(Call call, std::time_t t) {
  timeAfter = t;
  timeAfterCall = call;
}

const char* nameOf(Call call) {
  static const char* const names[] = {"open",        "write", "read",     "lseek64",
                                      "ftruncate64", "close", "rename",   "remove",
                                      "mkdir",       "fsync", "fdatasync"};
  return names[call];
}

void startRecording() {
  std::lock_guard<std::mutex> lock(recordMutex);
  records.clear();
  recording = true;
}

std::vector<Recorded> takeRecording() {
  std::lock_guard<std::mutex> lock(recordMutex);
  recording = false;
  return std::move(records);
}

std::size_t takeRecordingSize() {
  std::lock_guard<std::mutex> lock(recordMutex);
  return records.size();
}

void reset() {
  for (int i = 0; i < kCalls; ++i) rules[i] = Rule{}, counts[i] = 0;
  firedCount = 0;
  readBytes = 0;
  fixedTime = 0;
  timeAfterCall = -1;
}

}  // namespace PosixFaults

using namespace PosixFaults;

extern "C" {

int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __real_read(int fd, void* data, size_t size);
off64_t __real_lseek64(int fd, off64_t offset, int whence);
int __real_ftruncate64(int fd, off64_t length);
int __real_close(int fd);
int __real_rename(const char* from, const char* to);
int __real_remove(const char* path);
int __real_mkdir(const char* path, mode_t mode);
int __real_fsync(int fd);
int __real_fdatasync(int fd);
time_t __real_time(time_t* t);

int __wrap_open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if (flags & (O_CREAT | O_TMPFILE)) {
    va_list args;
    va_start(args, flags);
    mode = static_cast<mode_t>(va_arg(args, int));
    va_end(args);
  }
  if (inject(kOpen)) return -1;
  const int fd = __real_open(path, flags, mode);
  if (fd >= 0 && recording) record({kOpen, path, "", fd, flags, ""});
  return fd;
}

ssize_t __wrap_write(int fd, const void* data, size_t size) {
  long limit = -1;
  if (inject(kWrite, &limit)) return -1;
  if (limit == 0) return 0;
  if (limit > 0 && static_cast<size_t>(limit) < size) size = static_cast<size_t>(limit);
  const off64_t at = recording ? __real_lseek64(fd, 0, SEEK_CUR) : 0;
  const ssize_t written = __real_write(fd, data, size);
  if (written > 0 && recording)
    record({kWrite, "", "", fd, at, std::string(static_cast<const char*>(data), written)});
  return written;
}

ssize_t __wrap_read(int fd, void* data, size_t size) {
  long limit = -1;
  if (inject(kRead, &limit)) return -1;
  if (limit >= 0 && static_cast<size_t>(limit) < size) size = static_cast<size_t>(limit);
  const ssize_t got = size == 0 ? 0 : __real_read(fd, data, size);
  if (got > 0) readBytes += got;
  return got;
}

int __wrap_close(int fd) {
  if (recording) record({kClose, "", "", fd, 0, ""});
  if (!inject(kClose)) return __real_close(fd);
  // A failed close still releases the descriptor on Linux; keep the test process clean.
  const int saved = errno;
  __real_close(fd);
  errno = saved;
  return -1;
}

off64_t __wrap_lseek64(int fd, off64_t offset, int whence) {
  return inject(kLseek64) ? -1 : __real_lseek64(fd, offset, whence);
}
// The calls below change the file system or sync it; a successful one is recorded.
int __wrap_ftruncate64(int fd, off64_t length) {
  return passOrFail(kFtruncate64, "", "", fd, length, __real_ftruncate64, fd, length);
}
int __wrap_rename(const char* from, const char* to) {
  return passOrFail(kRename, from, to, -1, 0, __real_rename, from, to);
}
int __wrap_remove(const char* path) {
  return passOrFail(kRemove, path, "", -1, 0, __real_remove, path);
}
int __wrap_mkdir(const char* path, mode_t mode) {
  return passOrFail(kMkdir, path, "", -1, 0, __real_mkdir, path, mode);
}
int __wrap_fsync(int fd) { return passOrFail(kFsync, "", "", fd, 0, __real_fsync, fd); }
int __wrap_fdatasync(int fd) { return passOrFail(kFdatasync, "", "", fd, 0, __real_fdatasync, fd); }

time_t __wrap_time(time_t* t) {
  const time_t fixed = fixedTime;
  if (fixed == 0) return __real_time(t);
  if (t) *t = fixed;
  return fixed;
}

}  // extern "C"
