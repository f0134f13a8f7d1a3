#include "SnapshotFiles.h"

#include "LogDirectory.h"
#include "SnapshotManifest.h"
#include "SnapshotName.h"
#include "SnapshotStream.h"

namespace fbcdc {

bool expandSnapshot(const std::string& path, std::vector<LogFile>& logs) {
  if (LogDirectory::isDirectory(path)) {
    const auto manifest = SnapshotManifest::load(path);
    if (!manifest) return false;
    for (const std::string& file : manifest->chunkFiles(path))
      logs.push_back(SnapshotStream::fileOf(file));
    return true;
  }
  if (!SnapshotName::isSnapshotFile(path)) return false;
  logs.push_back(SnapshotStream::fileOf(path));
  return true;
}

}  // namespace fbcdc
