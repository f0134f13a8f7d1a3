#include "SnapshotApplier.h"

#include <stdexcept>

#include "Database.h"
#include "ReplicaApplier.h"
#include "SnapshotName.h"

SnapshotApplier::SnapshotApplier(Database& replica, ReplicaApplier& applier,
                                 const SnapshotStream& snapshot)
    : replica_(replica), applier_(applier), snapshot_(snapshot) {
  // Once every file is in, the stored position is that of the logs behind this prefix.
  SnapshotPosition done;
  done.files = static_cast<std::uint32_t>(snapshot.files());
  const std::string full = done.serialize();
  applier_.positionPrefix(full);
  const SnapshotStream* stream = &snapshot_;
  applier_.skipEvents([stream](const LogFile& log, const ChangeEvent& e) {
    if (SnapshotName::isSnapshotFile(log.name)) return false;
    if (e.isRowChange()) return stream->contains(e.relation, log.parsed.transaction);
    return stream->containsStatement(e.sqlText, log.parsed.transaction);
  });
}

SnapshotPosition SnapshotApplier::position() {
  return SnapshotPosition::parse(applier_.storedPosition());
}

std::size_t SnapshotApplier::applyRows(
    const std::function<void(std::size_t, std::size_t)>& progress) {
  SnapshotPosition at = position();
  if (at.files > snapshot_.files())
    throw std::runtime_error(
        "the replica holds more snapshot files than the snapshot has: it "
        "was filled from another snapshot");
  if (at.files == 0) {
    // Rows already there would be rows twice: only an empty replica is filled.
    for (const auto& t : snapshot_.manifest().tables) {
      const auto rows = replica_.texts(
          "SELECT FIRST 1 CAST(1 AS VARCHAR(1) CHARACTER SET UTF8) "
          "FROM " +
          Database::quote(t.name));
      replica_.commit();
      if (!rows.empty())
        throw std::runtime_error("the replica's table " + t.name +
                                 " holds rows; a replica is filled from a snapshot only when "
                                 "its tables are empty");
    }
  }
  std::size_t applied = 0;
  while (at.files < snapshot_.files()) {
    SnapshotPosition after = at;
    after.files = at.files + 1;
    try {
      applier_.applyWithPosition(SnapshotStream::fileOf(snapshot_.file(at.files)),
                                 after.serialize());
    } catch (const ApplyError&) {
      // Through a server, an applier killed after asking for its commit may have its commit
      // finish only after the next one read the position: the file then meets its own rows.
      // Read the position again; when it moved, go on from there.
      const SnapshotPosition now = position();
      if (now.files <= at.files) throw;
      at = now;
      continue;
    }
    at = after;
    ++applied;
    if (progress) progress(at.files, snapshot_.files());
  }
  return applied;
}
