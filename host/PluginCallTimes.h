// Where the time inside the plugin's calls goes: the server calls it makes (blob reads, which
// TimedAttachment passes on), its file calls (create, write, read back, seek, truncate, sync,
// close, rename, remove), and the rest, its own work (encoding, copies, CRC, and the row image's
// calls, which in a driver are reads of its own memory).
//
// The driver marks a thread while it is inside a call into the plugin (InPlugin), and the
// attachment's wrapper while the plugin is inside a server call (InServer). The file calls are
// caught by defining the C library's functions in the program itself: the plugin, loaded later,
// binds to them when the program's link exports them (host's CMake does so for every program
// that links the driver). A file call counts while its thread is inside a plugin call and not
// inside a server call; any other call passes straight on.
#pragma once

#include <cstdint>

class PluginCallTimes {
 public:
  // The calling thread's totals since it began, in nanoseconds.
  struct Totals {
    std::int64_t plugin = 0;  // inside calls into the plugin
    std::int64_t server = 0;  // of which in the server calls it made
    std::int64_t files = 0;   // of which in its file calls
  };
  static Totals thisThread();

  // Whether the plugin's file calls reach this program's definitions; when the program was linked
  // without exporting them they are not seen, and files stays 0.
  static bool filesSeen();

  class InPlugin {
   public:
    InPlugin();
    ~InPlugin();
    InPlugin(const InPlugin&) = delete;
    InPlugin& operator=(const InPlugin&) = delete;

   private:
    std::int64_t start_;
  };

  class InServer {
   public:
    InServer();
    ~InServer();
    InServer(const InServer&) = delete;
    InServer& operator=(const InServer&) = delete;

   private:
    std::int64_t start_;
  };
};
