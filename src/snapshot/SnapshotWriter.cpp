#include "SnapshotWriter.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>

#include "Database.h"
#include "Message.h"
#include "MessageRow.h"
#include "ReplTransaction.h"
#include "SnapshotName.h"

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

[[noreturn]] void failErrno(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

std::string literal(const std::string& text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string("''") : std::string(1, c);
  return out + "'";
}

// The first column of every row of a query whose first column is a BIGINT, in transaction tr.
std::vector<std::uint64_t> numbers(Database& db, Firebird::ITransaction* tr,
                                   const std::string& sql) {
  Firebird::IStatement* statement = db.attachment()->prepare(
      db.status(), tr, 0, sql.c_str(), 3, Firebird::IStatement::PREPARE_PREFETCH_METADATA);
  std::vector<std::uint64_t> out;
  Firebird::IResultSet* rows = nullptr;
  try {
    Firebird::IMessageMetadata* meta = statement->getOutputMetadata(db.status());
    Message row(db.status(), meta);
    meta->release();
    rows = statement->openCursor(db.status(), tr, nullptr, nullptr, row.metadata(), 0);
    while (rows->fetchNext(db.status(), row.buffer()) == Firebird::IStatus::RESULT_OK) {
      std::int64_t value;
      std::memcpy(&value, row.data(0), sizeof value);
      if (!row.isNull(0)) out.push_back(static_cast<std::uint64_t>(value));
    }
    rows->close(db.status());
    rows = nullptr;
    statement->free(db.status());
  } catch (...) {
    if (rows) rows->release();
    statement->release();
    throw;
  }
  return out;
}

constexpr const char* kOwnNumber = "SELECT CAST(CURRENT_TRANSACTION AS BIGINT) FROM RDB$DATABASE";

// The transactions that the transaction inventory holds as active, as a transaction that the
// engine starts for the question sees them (and then commits). The inventory is what decides what
// a reading transaction sees; the attachments' lists (MON$TRANSACTIONS) keep a transaction for a
// moment after its commit reached the inventory, and a boundary read from them could count a
// transaction as open whose changes the rows already hold.
std::vector<std::uint64_t> activeTransactions(Database& db) {
  const unsigned char item[] = {isc_info_active_transactions};
  // One answer, and no larger than the network protocol of older servers carries (a 16-bit
  // length): each question starts a transaction of its own, which the boundary's check counts.
  std::vector<unsigned char> reply(32767);
  db.attachment()->getInfo(db.status(), sizeof item, item, static_cast<unsigned>(reply.size()),
                           reply.data());
  std::vector<std::uint64_t> out;
  std::size_t at = 0;
  // Each entry: the item, a 2-byte length, the number in that many bytes.
  while (at + 3 <= reply.size() && reply[at] == isc_info_active_transactions) {
    const auto length = static_cast<std::uint16_t>(isc_portable_integer(&reply[at + 1], 2));
    if (length > 8 || at + 3 + length > reply.size()) break;
    out.push_back(static_cast<std::uint64_t>(
        isc_portable_integer(&reply[at + 3], static_cast<short>(length))));
    at += 3 + length;
  }
  if (at < reply.size() && reply[at] == isc_info_end) return out;
  if (at < reply.size() && reply[at] == isc_info_truncated)
    throw std::runtime_error("more transactions are active than the server lists in one answer (" +
                             std::to_string(out.size()) +
                             " and more): take the snapshot when fewer are open");
  throw std::runtime_error("the server's list of active transactions could not be read");
}

// The text of the error in a status the plugin's operations filled.
std::string statusText(Firebird::IStatus* status) {
  char text[2048];
  Firebird::fb_get_master_interface()->getUtilInterface()->formatStatus(text, sizeof text, status);
  return text;
}

// A status object of the master's, disposed with the holder.
struct OwnedStatus {
  Firebird::IStatus* status = Firebird::fb_get_master_interface()->getStatus();
  ~OwnedStatus() { status->dispose(); }
};

}  // namespace

std::vector<std::string> SnapshotWriter::userTables() {
  // Persistent tables only: views, external, virtual and temporary tables hold no rows to copy.
  std::vector<std::string> tables;
  for (auto& row : db_.texts(
           "SELECT CAST(TRIM(RDB$RELATION_NAME) AS VARCHAR(63) CHARACTER SET UTF8) "
           "FROM RDB$RELATIONS WHERE COALESCE(RDB$SYSTEM_FLAG, 0) = 0 AND RDB$VIEW_BLR IS NULL "
           "AND COALESCE(RDB$RELATION_TYPE, 0) = 0 AND RDB$EXTERNAL_FILE IS NULL ORDER BY 1"))
    tables.push_back(std::move(row[0]));
  return tables;
}

std::vector<std::string> SnapshotWriter::storedColumns(const std::string& table) {
  std::vector<std::string> columns;
  for (auto& row :
       db_.texts("SELECT CAST(TRIM(RF.RDB$FIELD_NAME) AS VARCHAR(63) CHARACTER SET UTF8) "
                 "FROM RDB$RELATION_FIELDS RF JOIN RDB$FIELDS F ON F.RDB$FIELD_NAME = "
                 "RF.RDB$FIELD_SOURCE "
                 "WHERE RF.RDB$RELATION_NAME = " +
                 literal(table) + " AND F.RDB$COMPUTED_BLR IS NULL ORDER BY RF.RDB$FIELD_ID"))
    columns.push_back(std::move(row[0]));
  return columns;
}

SnapshotManifest SnapshotWriter::plan() {
  std::optional<SnapshotManifest> found = SnapshotManifest::load(options_.output);
  std::vector<std::string> wanted = options_.tables;
  if (wanted.empty()) {
    wanted = found ? std::vector<std::string>() : userTables();
    if (found)
      for (const auto& t : found->tables) wanted.push_back(t.name);
  } else {
    const std::vector<std::string> all = userTables();
    for (const std::string& t : wanted)
      if (std::find(all.begin(), all.end(), t) == all.end())
        throw std::runtime_error("no table " + t + " in " + db_.path());
  }
  if (found) {
    std::vector<std::string> planned;
    for (const auto& t : found->tables) planned.push_back(t.name);
    if (found->database != db_.path())
      throw std::runtime_error(options_.output + " holds a snapshot of " + found->database +
                               ", not of " + db_.path());
    if (planned != wanted)
      throw std::runtime_error(options_.output +
                               " holds a snapshot of other tables; name the same tables, or use "
                               "another directory");
    return *found;
  }
  SnapshotManifest m;
  m.database = db_.path();
  for (const std::string& t : wanted) {
    SnapshotManifest::Table table;
    table.name = t;
    m.tables.push_back(table);
  }
  return m;
}

void SnapshotWriter::clean(const SnapshotManifest& manifest) {
  DIR* dir = ::opendir(options_.output.c_str());
  if (!dir) failErrno("cannot read " + options_.output);
  std::vector<std::string> stale;
  while (const dirent* e = ::readdir(dir)) {
    const std::string name = e->d_name;
    SnapshotName parsed;
    if (SnapshotName::parse(name, parsed)) {
      const bool owned = parsed.table < manifest.tables.size() &&
                         manifest.tables[parsed.table].boundary == parsed.boundary &&
                         parsed.chunk < manifest.tables[parsed.table].chunks;
      if (!owned) stale.push_back(name);
    } else if (name.size() > 4 && name.compare(name.size() - 4, 4, ".tmp") == 0) {
      stale.push_back(name);
    }
  }
  ::closedir(dir);
  for (const std::string& name : stale)
    if (::unlink((options_.output + "/" + name).c_str()) != 0 && errno != ENOENT)
      failErrno("cannot remove " + options_.output + "/" + name);
}

SnapshotSummary SnapshotWriter::run(const ProgressFn& progress) {
  if (options_.chunkRows == 0) throw std::runtime_error("a chunk needs at least one row");
  if (::mkdir(options_.output.c_str(), 0755) != 0 && errno != EEXIST)
    failErrno("cannot create " + options_.output);
  dirFd_ = ::open(options_.output.c_str(), O_RDONLY | O_DIRECTORY);
  if (dirFd_ < 0) failErrno("cannot open " + options_.output);
  struct Closer {
    int& fd;
    ~Closer() {
      ::close(fd);
      fd = -1;
    }
  } closer{dirFd_};
  dirSlash_ = options_.output + "/";

  SnapshotSummary summary;
  SnapshotManifest manifest = plan();
  db_.commit();  // what plan read; no transaction of this attachment stays open across the pause
  if (manifest.complete) {
    summary.alreadyComplete = true;
    summary.tablesKept = manifest.tables.size();
    return summary;
  }
  clean(manifest);

  std::vector<std::size_t> pending;
  std::string reserving;
  for (std::size_t i = 0; i < manifest.tables.size(); ++i) {
    if (manifest.tables[i].done()) {
      ++summary.tablesKept;
      continue;
    }
    pending.push_back(i);
    reserving += (reserving.empty() ? "" : ", ") + Database::quote(manifest.tables[i].name);
  }
  // Column lists and keys are read before the pause, to keep it short.
  std::vector<std::vector<std::string>> columns(manifest.tables.size());
  std::vector<std::vector<std::string>> keys(manifest.tables.size());
  for (const std::size_t i : pending) {
    columns[i] = storedColumns(manifest.tables[i].name);
    keys[i] = db_.primaryKey(manifest.tables[i].name);
  }
  db_.commit();

  Firebird::ITransaction* reader = nullptr;
  if (!pending.empty()) {
    std::uint64_t own = 0;
    std::vector<std::uint64_t> active;
    // Without holding anyone first; a busy moment can keep two looks from telling the boundary
    // every time, and then the writers are held for the start.
    for (int attempt = 0; attempt < options_.unpausedAttempts && !reader; ++attempt) {
      reader = startUnpaused(own, active);
      if (!reader) ++summary.unpausedTries;
    }
    if (!reader) {
      summary.paused = true;
      reader = startPaused(reserving, own, active, summary);
    }
    active.erase(std::remove(active.begin(), active.end(), own), active.end());
    summary.boundary = SnapshotBoundary(own, active);
    SnapshotManifest::Run run;
    run.boundary = summary.boundary;
    run.pauseMicros = static_cast<std::int64_t>(summary.pauseSeconds * 1e6);
    run.drainMicros = static_cast<std::int64_t>(summary.drainSeconds * 1e6);
    manifest.runs[own] = run;
  }

  const Clock::time_point started = Clock::now();
  SnapshotProgress shown;
  shown.tables = manifest.tables.size();
  shown.tablesDone = summary.tablesKept;
  try {
    for (const std::size_t i : pending) {
      SnapshotManifest::Table& table = manifest.tables[i];
      shown.table = table.name;
      // The chosen columns, in key order when there is a key.
      std::string sql = "SELECT ";
      for (std::size_t c = 0; c < columns[i].size(); ++c)
        sql += (c ? ", " : "") + Database::quote(columns[i][c]);
      sql += " FROM " + Database::quote(table.name);
      for (std::size_t k = 0; k < keys[i].size(); ++k)
        sql += (k ? ", " : " ORDER BY ") + Database::quote(keys[i][k]);
      if (columns[i].empty()) throw std::runtime_error("table " + table.name + " has no columns");
      readTable(i, table, sql, reader, summary, progress, shown, started);
      table.boundary = summary.boundary.transaction();
      manifest.store(options_.output);
      ++summary.tablesRead;
      ++shown.tablesDone;
    }
    if (reader) {
      reader->commit(db_.status());
      reader = nullptr;
    }
  } catch (...) {
    if (reader) Database::rollbackQuietly(reader);
    throw;
  }
  manifest.complete = true;
  manifest.store(options_.output);
  summary.seconds = since(started);
  return summary;
}

void SnapshotWriter::readTable(std::size_t ordinal, SnapshotManifest::Table& table,
                               const std::string& sql, Firebird::ITransaction* tr,
                               SnapshotSummary& summary, const ProgressFn& progress,
                               SnapshotProgress& shown, Clock::time_point started) {
  Firebird::IAttachment* att = db_.attachment();
  Firebird::ThrowStatusWrapper* st = db_.status();
  OwnedStatus recordStatus;
  Firebird::IStatement* statement =
      att->prepare(st, tr, 0, sql.c_str(), 3, Firebird::IStatement::PREPARE_PREFETCH_METADATA);
  Firebird::IResultSet* rows = nullptr;
  ReplTransaction* chunk = nullptr;
  std::uint32_t chunks = 0;
  std::uint64_t inChunk = 0;
  std::uint64_t rowCount = 0;
  std::uint64_t bytes = 0;
  Clock::time_point lastShown = Clock::now();

  // A chunk is a log of its own: written by the plugin's transaction writer, durably (its data
  // synced at commit), then renamed to its snapshot name and the directory synced.
  auto publish = [&]() {
    if (chunk->commit(recordStatus.status) != 0)
      throw std::runtime_error("cannot write a chunk of " + table.name + ": " +
                               statusText(recordStatus.status));
    SnapshotName name{summary.boundary.transaction(), static_cast<std::uint32_t>(ordinal), chunks};
    const std::string final = dirSlash_ + name.text();
    if (::rename(chunk->getFileName(), final.c_str()) != 0) failErrno("cannot publish " + final);
    if (::fsync(dirFd_) != 0) failErrno("cannot sync " + options_.output);
    // Its temporary name is gone: dispose finds nothing to rename and only deletes the writer.
    chunk->dispose();
    chunk = nullptr;
    struct stat sb;
    if (::stat(final.c_str(), &sb) == 0) bytes += static_cast<std::uint64_t>(sb.st_size);
    summary.bytes += static_cast<std::uint64_t>(sb.st_size);
    ++chunks;
    ++summary.chunks;
    inChunk = 0;
    shown.bytes = summary.bytes;
  };

  try {
    Firebird::IMessageMetadata* meta = statement->getOutputMetadata(st);
    Message message(st, meta);
    meta->release();
    MessageRow row(table.name, message);
    rows = statement->openCursor(st, tr, nullptr, nullptr, message.metadata(), 0);
    while (rows->fetchNext(st, message.buffer()) == Firebird::IStatus::RESULT_OK) {
      if (!chunk) {
        // The number only makes the temporary name unique within the directory.
        chunk = new ReplTransaction(static_cast<std::uint64_t>(ordinal) << 32 | chunks);
        chunk->initialize(dirSlash_.c_str(), dirFd_);
      }
      recordStatus.status->init();
      if (chunk->insertRecord(recordStatus.status, att, tr, &row) != 0)
        throw std::runtime_error("cannot record a row of " + table.name + ": " +
                                 statusText(recordStatus.status));
      ++rowCount;
      ++summary.rows;
      shown.rows = summary.rows;
      if (++inChunk == options_.chunkRows) publish();
      // About once a second, whatever the size of the rows.
      if ((rowCount & 255) == 0 && progress && since(lastShown) >= 1.0) {
        shown.seconds = since(started);
        progress(shown);
        lastShown = Clock::now();
      }
    }
    rows->close(st);
    rows = nullptr;
    statement->free(st);
    statement = nullptr;
    if (chunk) publish();
  } catch (...) {
    if (chunk) chunk->dispose();  // not committed: its temporary file is removed
    if (rows) rows->release();
    if (statement) statement->release();
    throw;
  }
  table.chunks = chunks;
  table.rows = rowCount;
  table.bytes = bytes;
  if (progress) {
    shown.seconds = since(started);
    progress(shown);
  }
}

Firebird::ITransaction* SnapshotWriter::startUnpaused(std::uint64_t& own,
                                                      std::vector<std::uint64_t>& active) {
  Firebird::IAttachment* att = db_.attachment();
  // What is active just before the reading transaction starts, and the number of the
  // transaction that looked.
  const unsigned char look[] = {isc_tpb_version3, isc_tpb_read_committed, isc_tpb_rec_version,
                                isc_tpb_read, isc_tpb_nowait};
  Firebird::ITransaction* before = att->startTransaction(db_.status(), sizeof look, look);
  std::uint64_t lookNumber = 0;
  try {
    lookNumber = numbers(db_, before, kOwnNumber).at(0);
    before->commit(db_.status());
  } catch (...) {
    Database::rollbackQuietly(before);
    throw;
  }
  // What is active after that look and just before the reading transaction starts.
  const std::vector<std::uint64_t> activeBefore = activeTransactions(db_);
  const unsigned char tpb[] = {isc_tpb_version3, isc_tpb_concurrency, isc_tpb_read, isc_tpb_wait};
  Firebird::ITransaction* reader = att->startTransaction(db_.status(), sizeof tpb, tpb);
  try {
    own = numbers(db_, reader, kOwnNumber).at(0);
    active = activeTransactions(db_);
  } catch (...) {
    Database::rollbackQuietly(reader);
    throw;
  }
  // A transaction still active after the reading transaction began was active when it began. One
  // active before that is no longer active now, or one that began in between and has already
  // ended, may have committed before the reading transaction began or after: which, nothing
  // tells. Only when there is none is the list exact, and the reading transaction used. Between
  // the look and the reading transaction exactly one transaction must have ended: the one the
  // engine started to answer the first list. Any other count means a writer ended in between, or
  // a server that answers without that transaction, whose gap could hide a writer's.
  std::sort(active.begin(), active.end());
  auto activeNow = [&active](std::uint64_t t) {
    return std::binary_search(active.begin(), active.end(), t);
  };
  bool exact = true;
  for (const std::uint64_t t : activeBefore)
    if (!activeNow(t)) exact = false;
  int ended = 0;
  for (std::uint64_t t = lookNumber + 1; exact && ended < 2 && t < own; ++t)
    if (!activeNow(t)) ++ended;
  exact = exact && ended == 1;
  if (exact) return reader;
  Database::rollbackQuietly(reader);
  return nullptr;
}

Firebird::ITransaction* SnapshotWriter::startPaused(const std::string& reserving,
                                                    std::uint64_t& own,
                                                    std::vector<std::uint64_t>& active,
                                                    SnapshotSummary& summary) {
  Firebird::IAttachment* att = db_.attachment();
  // The pause: a transaction reserving the tables for protected read is granted once no
  // transaction that wrote to them is active, and keeps every new writer of them waiting. The
  // engine takes the tables one after the other, and a writer holding one while it waits for
  // another that the reservation already took would deadlock with it (found only after the
  // engine's deadlock timeout, seconds in which every writer waits). So the reservation first
  // asks without waiting, which holds nobody up, a few times; then it waits at most a second
  // for each table, again and again, until it is granted.
  const Clock::time_point asked = Clock::now();
  Firebird::ITransaction* hold = nullptr;
  for (int attempt = 1; !hold; ++attempt) {
    const bool wait = attempt > kNoWaitAttempts;
    const std::string reserve =
        std::string("SET TRANSACTION READ WRITE ") + (wait ? "WAIT LOCK TIMEOUT 1" : "NO WAIT") +
        " ISOLATION LEVEL SNAPSHOT RESERVING " + reserving + " FOR PROTECTED READ";
    try {
      hold = att->execute(db_.status(), nullptr, 0, reserve.c_str(), 3, nullptr, nullptr, nullptr,
                          nullptr);
    } catch (const Firebird::FbException& e) {
      const ISC_STATUS* v = e.getStatus()->getErrors();
      bool busy = false;
      for (const ISC_STATUS* p = v; p[0] == isc_arg_gds; p += 2) {
        busy = busy || p[1] == isc_deadlock || p[1] == isc_lock_conflict ||
               p[1] == isc_lock_timeout || p[1] == isc_update_conflict;
        if (p[2] != isc_arg_gds) break;
      }
      if (!busy || attempt == kReservationAttempts) throw;
      ++summary.reservationRetries;
      if (!wait) ::usleep(2000);
    }
  }
  const double drained = since(asked);
  Firebird::ITransaction* reader = nullptr;
  try {
    // The reading transaction: concurrency, read only. It sees what had committed when it began.
    const unsigned char tpb[] = {isc_tpb_version3, isc_tpb_concurrency, isc_tpb_read, isc_tpb_wait};
    reader = att->startTransaction(db_.status(), sizeof tpb, tpb);
    own = numbers(db_, reader, kOwnNumber).at(0);
    // While the tables are held, no transaction that wrote to them is active, nor can one write
    // to them: a transaction that ends before this list only changed other tables.
    active = activeTransactions(db_);
    hold->commit(db_.status());
  } catch (...) {
    Database::rollbackQuietly(hold);
    if (reader) Database::rollbackQuietly(reader);
    throw;
  }
  summary.pauseSeconds = since(asked);
  summary.drainSeconds = drained;
  return reader;
}
