// The snapshot's read rate against a plain SELECT of the same rows through the same client API
// into nothing (blob contents read and dropped as well), timed in turns on one embedded database.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>

#include "BenchSupport.h"
#include "Database.h"
#include "Message.h"
#include "SnapshotWriter.h"

namespace {

// Rows of the table: a hundred bytes or so each, with a short text blob on every tenth.
std::int64_t rowCount() {
  return std::clamp<std::int64_t>(bench::streamBytes() / 1000, 2000, 300000);
}

const std::string& source() {
  static const std::string path = [] {
    const std::string p = bench::scratchDirectory() + "/snapshot-source.fdb";
    Database db(p, true);
    db.executeAlone(
        "CREATE TABLE ITEMS (ID BIGINT NOT NULL PRIMARY KEY, NAME VARCHAR(60) CHARACTER SET UTF8, "
        "QTY INTEGER, PRICE NUMERIC(18,2), TS TIMESTAMP, NOTE BLOB SUB_TYPE TEXT)");
    Firebird::IStatement* s =
        db.prepare("INSERT INTO ITEMS VALUES (?, ?, ?, ?, CURRENT_TIMESTAMP, ?)");
    Firebird::IMessageMetadata* meta = s->getInputMetadata(db.status());
    Message m(db.status(), meta);
    meta->release();
    std::mt19937 random(1);
    for (std::int64_t i = 0; i < rowCount(); ++i) {
      std::memcpy(m.data(0), &i, 8);
      m.setText(1, "item number " + std::to_string(random()));
      const std::int32_t qty = static_cast<std::int32_t>(random() % 1000);
      std::memcpy(m.data(2), &qty, 4);
      const std::int64_t price = static_cast<std::int64_t>(random() % 10000000);
      std::memcpy(m.data(3), &price, 8);
      m.setNull(4, i % 10 != 0);
      if (i % 10 == 0) {
        const ISC_QUAD own = db.createBlob(std::string(200, 'n'));
        std::memcpy(m.data(4), &own, sizeof own);
      }
      s->execute(db.status(), db.transaction(), m.metadata(), m.buffer(), nullptr, nullptr);
      if (i % 10000 == 9999) db.commit();
    }
    s->free(db.status());
    db.commit();
    return p;
  }();
  return path;
}

// SELECT of every row in key order, fetched into a message and dropped; blobs read and dropped.
std::uint64_t plainSelect(Database& db) {
  Firebird::ITransaction* tr = db.transaction();
  Firebird::IStatement* s =
      db.prepare("SELECT ID, NAME, QTY, PRICE, TS, NOTE FROM ITEMS ORDER BY ID");
  Firebird::IMessageMetadata* meta = s->getOutputMetadata(db.status());
  Message m(db.status(), meta);
  meta->release();
  Firebird::IResultSet* rows = s->openCursor(db.status(), tr, nullptr, nullptr, m.metadata(), 0);
  std::uint64_t n = 0;
  static char piece[65535];
  while (rows->fetchNext(db.status(), m.buffer()) == Firebird::IStatus::RESULT_OK) {
    ++n;
    if (m.isNull(5)) continue;
    ISC_QUAD id;
    std::memcpy(&id, m.data(5), sizeof id);
    Firebird::IBlob* blob = db.attachment()->openBlob(db.status(), tr, &id, 0, nullptr);
    unsigned got = 0;
    while (blob->getSegment(db.status(), sizeof piece, piece, &got) !=
           Firebird::IStatus::RESULT_NO_DATA)
      benchmark::DoNotOptimize(piece[0]);
    blob->close(db.status());
  }
  rows->close(db.status());
  s->free(db.status());
  db.commit();
  return n;
}

void SnapshotAgainstPlainSelect(benchmark::State& state) {
  bench::InTurns turns;
  std::uint64_t rows = 0, bytes = 0;
  int round = 0;
  try {
    const std::string& path = source();
    Database db(path, false);
    for (auto _ : state) {
      const std::string out = bench::scratchDirectory() + "/snapshot-" + std::to_string(round++);
      SnapshotSummary summary;
      std::uint64_t selected = 0;
      turns.round(
          [&] {
            SnapshotOptions o;
            o.output = out;
            summary = SnapshotWriter(db, o).run();
          },
          [&] { selected = plainSelect(db); });
      state.PauseTiming();
      std::filesystem::remove_all(out);
      rows = summary.rows;
      bytes = summary.bytes;
      if (rows != selected) state.SkipWithError("the snapshot and the SELECT read other rows");
      state.ResumeTiming();
    }
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return;
  }
  const double all = static_cast<double>(rows * state.iterations());
  state.counters["snapshot_rows_per_second"] = all / turns.firstSeconds();
  state.counters["select_rows_per_second"] = all / turns.secondSeconds();
  state.counters["snapshot_MB_per_second"] =
      static_cast<double>(bytes * state.iterations()) / 1e6 / turns.firstSeconds();
  state.counters["snapshot_vs_select"] = turns.secondSeconds() / turns.firstSeconds();
  state.counters["rows"] = static_cast<double>(rows);
}

}  // namespace

BENCHMARK(SnapshotAgainstPlainSelect)->UseRealTime()->Unit(benchmark::kMillisecond);
