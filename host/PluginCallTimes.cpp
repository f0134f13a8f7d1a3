#include "PluginCallTimes.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace {

// Constant-initialised, so that a file call made before main or on any thread finds it ready.
struct ThreadTimes {
  int pluginDepth;
  int serverDepth;
  std::int64_t plugin, server, files;
};
thread_local ThreadTimes times;

std::int64_t now() {
  timespec t;
  ::clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<std::int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// The C library's own function behind this program's definition of it, found on first use.
template <typename F>
F next(std::atomic<void*>& slot, const char* name) {
  void* f = slot.load(std::memory_order_acquire);
  if (!f) {
    f = ::dlsym(RTLD_NEXT, name);
    slot.store(f, std::memory_order_release);
  }
  return reinterpret_cast<F>(f);
}

// Times one file call when the plugin made it; the clock is not read for any other.
class FileCall {
 public:
  FileCall()
      : counted_(times.pluginDepth > 0 && times.serverDepth == 0), start_(counted_ ? now() : 0) {}
  ~FileCall() {
    if (counted_) times.files += now() - start_;
  }

 private:
  bool counted_;
  std::int64_t start_;
};

std::atomic<void*> realOpen, realWrite, realRead, realLseek64, realFtruncate64, realClose,
    realRename, realRemove, realFsync, realFdatasync;

// Looked up at load too, so that no first call in a forked child or a signal handler has to
// look its function up there; a call made before this runs looks it up itself.
struct FoundAtLoad {
  FoundAtLoad() {
    const std::pair<std::atomic<void*>*, const char*> calls[] = {{&realOpen, "open"},
                                                                 {&realWrite, "write"},
                                                                 {&realRead, "read"},
                                                                 {&realLseek64, "lseek64"},
                                                                 {&realFtruncate64, "ftruncate64"},
                                                                 {&realClose, "close"},
                                                                 {&realRename, "rename"},
                                                                 {&realRemove, "remove"},
                                                                 {&realFsync, "fsync"},
                                                                 {&realFdatasync, "fdatasync"}};
    for (const auto& [slot, name] : calls) slot->store(::dlsym(RTLD_NEXT, name));
  }
} foundAtLoad;

}  // namespace

// The C library's declarations give the exception specifications these must repeat; the
// project builds with hidden visibility, and these must be seen by the plugin.
#define FILE_CALL __attribute__((visibility("default")))

extern "C" {

FILE_CALL int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list arguments;
    va_start(arguments, flags);
    mode = static_cast<mode_t>(va_arg(arguments, int));
    va_end(arguments);
  }
  FileCall call;
  return next<int (*)(const char*, int, ...)>(realOpen, "open")(path, flags, mode);
}

FILE_CALL ssize_t write(int fd, const void* data, size_t size) {
  FileCall call;
  return next<ssize_t (*)(int, const void*, size_t)>(realWrite, "write")(fd, data, size);
}

FILE_CALL ssize_t read(int fd, void* data, size_t size) {
  FileCall call;
  return next<ssize_t (*)(int, void*, size_t)>(realRead, "read")(fd, data, size);
}

FILE_CALL off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
  FileCall call;
  return next<off64_t (*)(int, off64_t, int)>(realLseek64, "lseek64")(fd, offset, whence);
}

FILE_CALL int ftruncate64(int fd, off64_t length) noexcept {
  FileCall call;
  return next<int (*)(int, off64_t)>(realFtruncate64, "ftruncate64")(fd, length);
}

FILE_CALL int close(int fd) {
  FileCall call;
  return next<int (*)(int)>(realClose, "close")(fd);
}

FILE_CALL int rename(const char* from, const char* to) noexcept {
  FileCall call;
  return next<int (*)(const char*, const char*)>(realRename, "rename")(from, to);
}

FILE_CALL int remove(const char* path) noexcept {
  FileCall call;
  return next<int (*)(const char*)>(realRemove, "remove")(path);
}

FILE_CALL int fsync(int fd) {
  FileCall call;
  return next<int (*)(int)>(realFsync, "fsync")(fd);
}

FILE_CALL int fdatasync(int fd) {
  FileCall call;
  return next<int (*)(int)>(realFdatasync, "fdatasync")(fd);
}

}  // extern "C"

PluginCallTimes::Totals PluginCallTimes::thisThread() {
  return {times.plugin, times.server, times.files};
}

bool PluginCallTimes::filesSeen() {
  return ::dlsym(RTLD_DEFAULT, "write") == reinterpret_cast<void*>(&::write);
}

PluginCallTimes::InPlugin::InPlugin() : start_(now()) { ++times.pluginDepth; }

PluginCallTimes::InPlugin::~InPlugin() {
  if (--times.pluginDepth == 0) times.plugin += now() - start_;
}

PluginCallTimes::InServer::InServer() : start_(now()) { ++times.serverDepth; }

PluginCallTimes::InServer::~InServer() {
  if (--times.serverDepth == 0) times.server += now() - start_;
}
