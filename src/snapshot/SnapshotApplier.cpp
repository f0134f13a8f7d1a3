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
  for (std::size_t i = at.files; i < snapshot_.files(); ++i) {
    SnapshotPosition after = at;
    after.files = static_cast<std::uint32_t>(i + 1);
    applier_.applyWithPosition(SnapshotStream::fileOf(snapshot_.file(i)), after.serialize());
    at = after;
    ++applied;
    if (progress) progress(i + 1, snapshot_.files());
  }
  return applied;
}
