// The log's promises when calls fail and when the machine stops, over one workload of
// representative transactions (a one-block log, blocks with blobs from a real database, a
// savepoint rolled back into a block on disk, one rolled back to its header, several blocks, one
// given up, two that record nothing).
//
// Fault sweep: every POSIX call of the plugin (its start included) fails in turn with each errno,
// and writes and reads come up short, until no fault fires any more. After every run the failure
// was reported as a "CDC error", no descriptor stayed open, and the output directory holds exactly
// the expected log or none (a ".tmp" only where a failed rename or remove keeps one).
//
// Lost writes: the file-system calls of the workload are recorded, and every crash state is
// rebuilt in memory: each prefix (what a killed process leaves), synced calls kept, unsynced ones
// kept or dropped in every combination (a seeded sample when many). "Any" drops them
// independently, as POSIX allows; "ordered" keeps directory changes in order, a rename or removal
// only with the earlier writes to its file (a journalling file system). No state holds a ".fbl"
// that is not whole; with DurableLogs = true every transaction whose dispose returned has its
// ".fbl" whole. A transaction that records nothing touches no file.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <tuple>

#include "CrashStates.h"
#include "EmbeddedDatabase.h"
#include "IReplTransaction.h"
#include "LiteralRow.h"
#include "LogName.h"
#include "LogVerifier.h"
#include "PluginFixture.h"

namespace {

using T = Firebird::IReplTransaction*;

// Checks an operation's result: 0, or the generic code with a "CDC error" text.
bool ok(std::int32_t result, FbStatus& status) {
  if (result == 0) return true;
  EXPECT_EQ(335544382, result);
  EXPECT_EQ(0u, status.text().rfind("CDC error", 0)) << status.text();
  return false;
}

bool statements(T t, int count, FbStatus& st) {
  for (int i = 0; i < count; ++i)
    if (!ok(t->executeSql(st, ("STATEMENT " + std::to_string(i)).c_str(), i), st)) return false;
  return true;
}

struct Scenario {
  const char* name;
  bool durable;  // the sweep runs it with DurableLogs = true
  bool commits, publishes;
  // Runs the transaction's operations; false as soon as one returns an error, which must then
  // carry a "CDC error" text.
  std::function<bool(T, FbStatus&)> body;
};

using CrashStates::Op;

struct Recording {
  std::vector<Op> ops;
  // For each transaction that published: where its dispose returned, its final name, its log.
  struct Published {
    std::size_t disposed;
    std::string name, log;
  };
  std::vector<Published> published;
};

class Workload : public ::testing::Test {
 protected:
  Workload() {
    small.addLong("ID", 1).addVarchar("NAME", "Ada", 4);
    withBlob.addLong("ID", 1).addBlob("DOC", db.createBlob(Bytes(70000, 0x5A), false, 20000));
  }

  // Records the workload, each transaction disposed once it ran, under its own number, into an
  // output directory of its own: runs in different seconds publish under other names.
  Recording record(bool durable, const std::string& name) {
    const std::string logs = dir / (name + "/");
    FbStatus status;
    PosixFaults::startRecording();
    Firebird::IReplPlugin* plugin =
        startPlugin(status, dir / "plugin.conf",
                    "OutputDirectory = " + logs + "\n" + (durable ? "DurableLogs = true\n" : ""));
    std::vector<std::size_t> disposed;  // the recording's length when each dispose returned
    for (std::size_t i = 0; i < std::size(scenarios); ++i) {
      const Scenario& s = scenarios[i];
      T t = plugin->startTransaction(status, i + 1);
      FbStatus st;
      EXPECT_TRUE(s.body(t, st) && (!s.commits || ok(t->commit(st), st))) << s.name;
      t->dispose();
      disposed.push_back(PosixFaults::takeRecordingSize());
    }
    EXPECT_EQ(disposed[5], disposed[7]) << "a transaction of nothing touched a file";
    plugin->dispose();
    Recording run;
    run.ops = CrashStates::resolve(PosixFaults::takeRecording());
    for (const std::string& name : listDirectory(logs)) {
      LogName parsed;
      EXPECT_TRUE(LogName::parse(name, parsed) && parsed.published) << name;
      run.published.push_back(
          {disposed.at(parsed.transaction - 1), logs + name, readText(logs + name)});
    }
    EXPECT_EQ(4u, run.published.size());
    return run;
  }

  PosixFaults::Scope faults;
  TempDir dir;
  EmbeddedDatabase db{dir / "blobs.fdb"};
  LiteralRow small{"T"}, withBlob{"T"};
  const Scenario scenarios[8] = {
      {"one block", false, true, true,
       [&](T t, FbStatus& st) {
         return ok(t->insertRecord(st, nullptr, nullptr, &small), st) && statements(t, 3, st);
       }},
      {"blocks with blobs", false, true, true,
       [&](T t, FbStatus& st) {
         return ok(t->insertRecord(st, db.attachment(), db.transaction(), &withBlob), st) &&
                ok(t->insertRecord(st, db.attachment(), db.transaction(), &withBlob), st) &&
                statements(t, 10, st);
       }},
      {"rollback into a block on disk", false, true, true,
       [&](T t, FbStatus& st) {
         if (!statements(t, 100, st)) return false;
         t->startSavepoint(st, 1);
         if (!statements(t, 2500, st)) return false;
         t->rollbackSavepoint(1);
         return statements(t, 5, st);
       }},
      {"rolled back to the header", false, true, false,
       [&](T t, FbStatus& st) {
         if (!statements(t, 2500, st)) return false;
         t->rollbackSavepoint(0);
         return true;
       }},
      {"several blocks", true, true, true,
       [&](T t, FbStatus& st) { return statements(t, 2000, st); }},
      {"given up", false, false, false, [&](T t, FbStatus& st) { return statements(t, 1500, st); }},
      {"nothing, committed", false, true, false, [&](T, FbStatus&) { return true; }},
      {"nothing, given up", false, false, false, [&](T, FbStatus&) { return true; }},
  };
};

using FaultSweepTest = Workload;
using CrashStateTest = Workload;

TEST_F(FaultSweepTest, EveryCallFailsInTurn) {
  using namespace PosixFaults;
  // Each fault: a call, its errno, or (errno 0) the most bytes it transfers: none at first (the
  // run without a fault), a short write that is continued, a write that makes no progress, and a
  // block read back short or not at all.
  std::vector<std::tuple<Call, int, long>> kinds = {
      {kOpen, 0, -1}, {kWrite, 0, 100}, {kWrite, 0, 0}, {kRead, 0, 32767}, {kRead, 0, 0}};
  for (int k = 0; k < kCalls; ++k)
    for (const int error : {EIO, ENOSPC, EEXIST, EACCES, EINTR})
      kinds.push_back({static_cast<Call>(k), error, 0});
  int points = 0;
  for (const Scenario& s : scenarios) {
    const std::string logs = dir / (std::string("logs-") + (s.durable ? "d" : "p") + "/");
    const std::string config =
        std::string("OutputDirectory = ") + logs + "\n" + (s.durable ? "DurableLogs = true\n" : "");
    Bytes clean;  // the log that the run without a fault publishes
    for (std::size_t f = 0; f < kinds.size(); ++f) {
      const auto [kind, error, limit] = kinds[f];
      for (int nth = f == 0 ? 0 : 1;; ++nth) {
        SCOPED_TRACE(std::string(s.name) + ": " + nameOf(kind) + " " + std::to_string(nth) +
                     " fails with " + std::to_string(error) + " or transfers " +
                     std::to_string(limit));
        const std::size_t before = listDirectory("/proc/self/fd").size();
        reset();
        if (nth > 0 && error) failAt(kind, nth, error);
        if (nth > 0 && !error) limitAt(kind, nth, limit);
        FbStatus status, st;
        Firebird::IReplPlugin* plugin = startPlugin(status, dir / "plugin.conf", config);
        Firebird::IReplTransaction* t = plugin ? plugin->startTransaction(status, 7) : nullptr;
        const bool ran = t && s.body(t, st);
        const bool committed = ran && s.commits && ok(t->commit(st), st);
        if (t) t->dispose();
        if (plugin) plugin->dispose();
        EXPECT_TRUE(t || status.text().rfind("CDC error", 0) == 0) << status.text();
        const bool fired = PosixFaults::fired() > 0;
        reset();
        EXPECT_EQ(before, listDirectory("/proc/self/fd").size()) << "a descriptor stayed open";

        // A failure the plugin must report: anything but the cleanup calls whose results are
        // ignored, a write that only came up short, and an existing path for the directory.
        // (A failed cut, for one, leaves a committed log; its stale tail is checked below.)
        const bool ignored = kind == kFtruncate64 || kind == kClose || kind == kRename ||
                             kind == kRemove || (kind == kFsync && s.durable) ||
                             (kind == kWrite && limit > 0) || (kind == kMkdir && error == EEXIST);
        EXPECT_EQ(fired && !ignored, !ran || (s.commits && !committed))
            << "reported the wrong failures";

        Strings names = listDirectory(logs);
        if (committed && s.publishes) {
          ASSERT_EQ(1u, names.size());
          const Bytes file = readFile(logs + names[0]);
          if (nth == 0) clean = file;
          // A failed rename keeps the whole log under its temporary name, and so does a failed
          // sync of the directory of a durable log.
          const bool kept = fired && (kind == kRename || (kind == kFsync && s.durable));
          EXPECT_EQ(kept ? ".tmp" : ".fbl", names[0].substr(33));
          const auto verdict = LogVerifier::verify(logs + names[0]).verdict;
          if (fired && kind == kFtruncate64) {
            // The failed cut leaves the stale tail, as the writer must: fbcdc verify sees it.
            EXPECT_TRUE(std::equal(clean.begin(), clean.end(), file.begin()));
            EXPECT_EQ(LogVerifier::Verdict::kDamaged, verdict);
          } else {
            EXPECT_EQ(clean, file);
            EXPECT_TRUE(kept || verdict == LogVerifier::Verdict::kValid);
          }
        } else {
          // Nothing published; a ".tmp" only where its removal failed.
          EXPECT_TRUE(nth > 0 || !s.publishes) << "the run without a fault published nothing";
          EXPECT_EQ(fired && kind == kRemove ? 1u : 0u, names.size());
          for (const std::string& n : names) EXPECT_EQ(".tmp", n.substr(33));
        }
        for (const std::string& n : names) ::unlink((logs + n).c_str());
        if (!fired) break;  // the run without a fault, or no call left to fail
        ++points;
      }
    }
  }
  std::printf("fault sweep: %d fault points covered\n", points);
  EXPECT_GT(points, 200);
}

TEST_F(CrashStateTest, EveryCrashStateKeepsItsPromises) {
  std::size_t states = 0;
  for (const auto& [durable, ordered] :
       {std::pair{true, false}, std::pair{true, true}, std::pair{false, true}}) {
    SCOPED_TRACE(std::string(durable ? "durable" : "default") + (ordered ? ", ordered" : ", any"));
    const Recording run = record(
        durable, std::string(durable ? "durable" : "default") + (ordered ? "-ordered" : "-any"));
    states += CrashStates::forEach(
        run.ops, ordered, 13, [&](std::size_t end, const CrashStates::Files& files) {
          for (const auto& [name, content] : files) {
            if (name.size() < 4 || name.compare(name.size() - 4, 4, ".fbl") != 0) continue;
            bool whole = false;
            for (const Recording::Published& p : run.published)
              whole |= p.name == name && p.log == content;
            ASSERT_TRUE(whole) << name << " is not whole after a crash at call " << end;
          }
          for (const Recording::Published& p : run.published) {
            if (!durable || p.disposed > end) continue;
            const auto found = files.find(p.name);
            ASSERT_TRUE(found != files.end() && found->second == p.log)
                << p.name << " lost after a crash at call " << end << " (disposed at " << p.disposed
                << ")";
          }
        });
  }
  std::printf("lost-write simulation: %zu crash states checked\n", states);
}

}  // namespace
