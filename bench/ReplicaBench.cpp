// What the applier's old-value check costs: the demo's workload (1000 transactions, one thread,
// blobs up to 4 MiB; 20 transactions in the short run), captured once, applied with the check and
// without it in turns, each time into a fresh copy of an empty replica in memory (/dev/shm), so
// that a disk's syncs do not hide the difference. The same again with small blobs, where row
// statements weigh most.
#include <time.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>

#include <cstring>
#include <map>

#include "BenchSupport.h"
#include "CaptureDriver.h"
#include "Database.h"
#include "LogDecoder.h"
#include "LogDirectory.h"
#include "ReplicaApplier.h"
#include "Workload.h"

namespace {

struct Captured {
  std::string dir;  // holds logs/ and empty.fdb, a replica with the schema and no rows
  std::vector<LogFile> logs;
};

const Captured& capture(std::size_t maxBlob) {
  static std::map<std::size_t, Captured> captures;
  Captured& c = captures[maxBlob];
  if (!c.logs.empty()) return c;
  c.dir = bench::scratchDirectory() + "replica-" + std::to_string(maxBlob) + "/";
  std::filesystem::create_directories(c.dir);
  {
    Database empty(c.dir + "empty.fdb", true);
    Workload::createSchema(empty);
  }
  writeFile(c.dir + "plugin.conf", "OutputDirectory = " + c.dir + "logs\n");
  CaptureOptions o;
  o.database = c.dir + "source.fdb";
  o.pluginLibrary = FBCDC_PLUGIN_PATH;
  o.configFile = c.dir + "plugin.conf";
  o.outputDirectory = c.dir + "logs";
  o.transactions = bench::streamBytes() >= (std::int64_t{256} << 20) ? 1000 : 20;
  o.maxBlob = maxBlob;
  CaptureDriver(o).run();
  c.logs = LogDirectory::list(c.dir + "logs");
  return c;
}

// A fresh replica and an applier over it, ready to apply from the start.
struct Replica {
  Replica(const Captured& c, const char* name, bool check)
      : path(c.dir + name),
        copied(std::filesystem::copy_file(c.dir + "empty.fdb", path)),
        db(path, false),
        applier(db, ReplicaApplier::Conflicts::kError),
        position(applier.position()) {
    applier.checkOldValues(check);
  }
  ~Replica() { db.drop(); }
  void applyAll(const std::vector<LogFile>& logs) {
    for (const LogFile& log : logs) {
      position.advance(log);
      applier.apply(log, position);
    }
  }

  std::string path;
  bool copied;
  Database db;
  ReplicaApplier applier;
  FollowPosition position;
};

// Seconds of processor time this thread has used: on a machine shared with other work, a steadier
// measure of the applier's own work than the wall clock (the embedded engine works in the caller's
// thread).
double threadSeconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

void ApplyWithAndWithoutCheck(benchmark::State& state) {
  const Captured& c = capture(static_cast<std::size_t>(state.range(0)));
  bench::InTurns turns;
  double cpu[2] = {0, 0};
  std::uint64_t rows = 0;
  try {
    for (auto _ : state) {
      state.PauseTiming();
      {
        Replica checked(c, "checked.fdb", true), unchecked(c, "unchecked.fdb", false);
        state.ResumeTiming();
        const auto timed = [](Replica& r, const Captured& c, double& cpu) {
          const double start = threadSeconds();
          r.applyAll(c.logs);
          cpu += threadSeconds() - start;
        };
        turns.round([&] { timed(checked, c, cpu[0]); }, [&] { timed(unchecked, c, cpu[1]); });
        state.PauseTiming();
        rows = checked.applier.summary().rows;
        if (rows != unchecked.applier.summary().rows) state.SkipWithError("the rows differ");
      }
      state.ResumeTiming();
    }
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return;
  }
  const double all = static_cast<double>(rows * state.iterations());
  state.counters["checked_rows_per_second"] = all / turns.firstSeconds();
  state.counters["unchecked_rows_per_second"] = all / turns.secondSeconds();
  state.counters["checked_vs_unchecked"] = turns.secondSeconds() / turns.firstSeconds();
  state.counters["rows_per_round"] = static_cast<double>(rows);
  state.counters["checked_rows_per_cpu_second"] = all / cpu[0];
  state.counters["unchecked_rows_per_cpu_second"] = all / cpu[1];
  state.counters["checked_vs_unchecked_cpu"] = cpu[1] / cpu[0];
}

// The database's own limit for the rows of a captured workload: the INSERT, UPDATE and DELETE
// statements of the applier's shapes (by primary key; by old values through RDB$DB_KEY for a
// table without one; a statement of the log as it is), prepared once, and their parameters laid
// out in each statement's own input message beforehand, with the blobs' and arrays' contents in
// memory. The timed loop only stores the blobs and arrays, executes and commits: one transaction
// per log, as the applier. Nothing is decoded in it.
class StatementLoop {
 public:
  StatementLoop(Database& db, const std::vector<LogFile>& logs) : db_(db) {
    for (const LogFile& log : logs) {
      logs_.emplace_back();
      LogDecoder d;
      d.open(log.path);
      for (;;) {
        const ChangeEvent& e = d.next();
        if (e.kind == ChangeEvent::Kind::kEnd) break;
        logs_.back().push_back(operation(e));
      }
    }
    db_.commit();
  }
  ~StatementLoop() {
    for (auto& s : statements_) {
      s.second.in->release();
      s.second.statement->release();
    }
  }

  // Applies every log; returns the rows changed.
  std::uint64_t run() {
    std::uint64_t rows = 0;
    Firebird::ThrowStatusWrapper* st = db_.status();
    for (std::vector<Operation>& log : logs_) {
      for (Operation& o : log) {
        if (!o.statement) {
          db_.execute(o.sql);
          continue;
        }
        for (const Stored& b : o.stored) {
          const ISC_QUAD id =
              b.array ? db_.putArray(b.table, b.column, b.bytes) : db_.createBlob(b.bytes);
          std::memcpy(o.message.data() + b.offset, &id, sizeof id);
        }
        o.statement->statement->execute(st, db_.transaction(), o.statement->in, o.message.data(),
                                        nullptr, nullptr);
        rows += o.statement->statement->getAffectedRecords(st) == 1;
      }
      db_.commit();
    }
    return rows;
  }

 private:
  struct Statement {
    Firebird::IStatement* statement;
    Firebird::IMessageMetadata* in;
  };
  struct Stored {  // a blob or array to store, and where its id goes in the message
    unsigned offset;
    bool array;
    std::string table, column, bytes;
  };
  struct Operation {
    Statement* statement = nullptr;  // null: sql runs as it is
    std::string sql;
    std::vector<unsigned char> message;
    std::vector<Stored> stored;
  };

  Statement& prepare(const std::string& sql) {
    auto found = statements_.find(sql);
    if (found != statements_.end()) return found->second;
    Statement s;
    s.statement = db_.prepare(sql);
    s.in = s.statement->getInputMetadata(db_.status());
    return statements_.emplace(sql, s).first->second;
  }

  const std::vector<std::string>& key(std::string_view table) {
    auto found = keys_.find(std::string(table));
    if (found == keys_.end())
      found = keys_.emplace(std::string(table), db_.primaryKey(table)).first;
    return found->second;
  }

  Operation operation(const ChangeEvent& e) {
    using Kind = ChangeEvent::Kind;
    Operation o;
    if (e.kind == Kind::kSql) {
      o.sql = std::string(e.sqlText);
      return o;
    }
    const std::string table = Database::quote(e.relation);
    const std::vector<std::string>& k = key(e.relation);
    std::vector<std::pair<std::string, const FieldValue*>> params;
    std::string sql, set, where;
    if (e.kind != Kind::kDelete) {
      for (const FieldChange& f : e.fields) {
        if (!f.after.present()) continue;
        const std::string column(f.name);
        if (e.kind == Kind::kInsert) {
          set += (set.empty() ? "" : ", ") + Database::quote(f.name);
          where += where.empty() ? "?" : ", ?";
        } else {
          set += (set.empty() ? "" : ", ") + Database::quote(f.name) + " = ?";
        }
        params.emplace_back(column, &f.after);
      }
    }
    if (e.kind == Kind::kInsert) {
      sql = "INSERT INTO " + table + " (" + set + ") VALUES (" + where + ")";
    } else {
      for (const FieldChange& f : e.fields) {
        const bool keyColumn = std::find(k.begin(), k.end(), f.name) != k.end();
        if (!f.before.present() || f.before.isBlobLike() || (!k.empty() && !keyColumn)) continue;
        where += (where.empty() ? "" : " AND ") + Database::quote(f.name) +
                 (k.empty() ? " IS NOT DISTINCT FROM ?" : " = ?");
        params.emplace_back(std::string(f.name), &f.before);
      }
      const std::string head =
          e.kind == Kind::kDelete ? "DELETE FROM " + table : "UPDATE " + table + " SET " + set;
      sql = k.empty() ? head + " WHERE RDB$DB_KEY = (SELECT RDB$DB_KEY FROM " + table + " WHERE " +
                            where + ")"
                      : head + " WHERE " + where;
    }
    o.statement = &prepare(sql);
    Firebird::ThrowStatusWrapper* st = db_.status();
    Firebird::IMessageMetadata* in = o.statement->in;
    o.message.assign(in->getMessageLength(st), 0);
    for (unsigned i = 0; i < params.size(); ++i) {
      const FieldValue& v = *params[i].second;
      unsigned char* data = o.message.data() + in->getOffset(st, i);
      const std::int16_t indicator = v.kind == FieldValue::Kind::kNull ? -1 : 0;
      std::memcpy(o.message.data() + in->getNullOffset(st, i), &indicator, 2);
      if (indicator) continue;
      put(in->getType(st, i) & ~1u, in->getLength(st, i), in->getCharSet(st, i), v, data);
      if (v.isBlobLike())
        o.stored.push_back(
            {in->getOffset(st, i), v.kind == FieldValue::Kind::kArray, std::string(e.relation),
             params[i].first,
             v.kind == FieldValue::Kind::kArray
                 ? std::string(v.bytes.substr(
                       v.bytes.size() - db_.arrayBytes(std::string(e.relation), params[i].first)))
                 : std::string(v.bytes)});
    }
    return o;
  }

  // A value in the column's own type, as the server takes it.
  static void put(unsigned type, unsigned length, unsigned charSet, const FieldValue& v,
                  unsigned char* data) {
    const auto store = [data](const auto& x) { std::memcpy(data, &x, sizeof x); };
    switch (type) {
      case SQL_SHORT:
        return store(static_cast<std::int16_t>(v.integer));
      case SQL_LONG:
      case SQL_TYPE_DATE:
      case SQL_TYPE_TIME:
        return store(static_cast<std::int32_t>(v.integer));
      case SQL_INT64:
        return store(static_cast<std::int64_t>(v.integer));
      case SQL_FLOAT:
        return store(static_cast<float>(v.real));
      case SQL_DOUBLE:
        return store(v.real);
      case SQL_TIMESTAMP:
        return store(ISC_TIMESTAMP{static_cast<ISC_DATE>(v.integer), v.time});
      case SQL_BOOLEAN:
        return store(static_cast<FB_BOOLEAN>(v.integer != 0));
      case SQL_TEXT:
        std::memset(data, charSet == 1 ? 0 : ' ', length);
        std::memcpy(data, v.bytes.data(), std::min<std::size_t>(length, v.bytes.size()));
        return;
      case SQL_VARYING: {
        const auto n = static_cast<std::uint16_t>(std::min<std::size_t>(length, v.bytes.size()));
        store(n);
        std::memcpy(data + 2, v.bytes.data(), n);
        return;
      }
      case SQL_BLOB:
      case SQL_ARRAY:
        return;  // the id, stored in the loop
      default:
        throw std::runtime_error("a column type the loop does not lay out: " +
                                 std::to_string(type));
    }
  }

  Database& db_;
  std::map<std::string, Statement> statements_;
  std::map<std::string, std::vector<std::string>> keys_;
  std::vector<std::vector<Operation>> logs_;
};

// The applier (with its old-value check and without) against the statement loop over the same
// logs, in turns, each into a fresh empty replica in memory. Rows per second of each; the
// processor time of this thread besides (the embedded engine works in the caller's thread).
void ApplyAgainstStatements(benchmark::State& state) {
  const Captured& c = capture(static_cast<std::size_t>(state.range(0)));
  double seconds[3] = {0, 0, 0}, cpu[3] = {0, 0, 0};
  std::uint64_t rows[3] = {0, 0, 0};
  int first = 0;
  try {
    for (auto _ : state) {
      state.PauseTiming();
      {
        Replica checked(c, "checked.fdb", true), unchecked(c, "unchecked.fdb", false);
        const std::string loopPath = c.dir + "loop.fdb";
        std::filesystem::copy_file(c.dir + "empty.fdb", loopPath);
        Database loopDb(loopPath, false);
        StatementLoop loop(loopDb, c.logs);
        state.ResumeTiming();
        const std::function<std::uint64_t()> work[3] = {[&] {
                                                          checked.applyAll(c.logs);
                                                          return checked.applier.summary().rows;
                                                        },
                                                        [&] {
                                                          unchecked.applyAll(c.logs);
                                                          return unchecked.applier.summary().rows;
                                                        },
                                                        [&] { return loop.run(); }};
        for (int k = 0; k < 3; ++k) {
          const int i = (first + k) % 3;
          const auto start = std::chrono::steady_clock::now();
          const double cpuStart = threadSeconds();
          rows[i] = work[i]();
          cpu[i] += threadSeconds() - cpuStart;
          seconds[i] +=
              std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        }
        first = (first + 1) % 3;
        state.PauseTiming();
        loopDb.drop();
      }
      state.ResumeTiming();
    }
  } catch (const Firebird::FbException& e) {
    state.SkipWithError(Database::describe(e).c_str());
    return;
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["checked_rows_per_second"] = static_cast<double>(rows[0]) * n / seconds[0];
  state.counters["unchecked_rows_per_second"] = static_cast<double>(rows[1]) * n / seconds[1];
  state.counters["loop_rows_per_second"] = static_cast<double>(rows[2]) * n / seconds[2];
  state.counters["checked_rows_per_cpu_second"] = static_cast<double>(rows[0]) * n / cpu[0];
  state.counters["loop_rows_per_cpu_second"] = static_cast<double>(rows[2]) * n / cpu[2];
  state.counters["rows_per_round"] = static_cast<double>(rows[0]);
  state.counters["loop_rows_per_round"] = static_cast<double>(rows[2]);
}

}  // namespace

BENCHMARK(ApplyWithAndWithoutCheck)
    ->ArgName("max_blob")
    ->Arg(4 << 20)
    ->Arg(256)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(bench::pairSeconds() * 5);
BENCHMARK(ApplyAgainstStatements)
    ->ArgName("max_blob")
    ->Arg(4 << 20)
    ->Arg(0)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(bench::pairSeconds() * 3);
