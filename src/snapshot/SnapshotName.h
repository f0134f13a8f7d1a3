// The name of a snapshot file: "snapshot-<boundary>-<table>-<chunk>.fbs", the snapshot
// transaction's number as 16 lower-case hexadecimal digits, the table's place in the snapshot's
// list of tables (4 digits) and the chunk's place in its table (6 digits). Its own ending keeps it
// apart from the plugin's logs, and the number says which run of the snapshot read it.
#pragma once

#include <cstdint>
#include <string>

struct SnapshotName {
  std::uint64_t boundary = 0;
  std::uint32_t table = 0;
  std::uint32_t chunk = 0;

  static constexpr const char* kSuffix = ".fbs";

  std::string text() const;
  // Parses the last component of path; false when it is not a snapshot file's name.
  static bool parse(const std::string& path, SnapshotName& name);
  // True when path's last component ends in the snapshot files' ending.
  static bool isSnapshotFile(const std::string& path);
};
