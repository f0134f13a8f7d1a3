// Every POSIX call of the plugin (its start included) fails in turn with each errno, writes come up
// short, until no fault fires any more. After every run the failure was reported as a "CDC error",
// no descriptor stayed open, and the output directory holds exactly the expected log or none (a
// ".tmp" only where a failed rename or remove keeps one).
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "EmbeddedDatabase.h"
#include "IReplTransaction.h"
#include "LiteralRow.h"
#include "LogVerifier.h"
#include "PluginFixture.h"

namespace {

struct Scenario {
  const char* name;
  bool durable, publishes;
  // Runs the transaction's operations; false as soon as one returns an error, which must then
  // carry a "CDC error" text.
  std::function<bool(Firebird::IReplTransaction*, FbStatus&)> body;
};

// Checks an operation's result: 0, or the generic code with a "CDC error" text.
bool ok(std::int32_t result, FbStatus& status) {
  if (result == 0) return true;
  EXPECT_EQ(335544382, result);
  EXPECT_EQ(0u, status.text().rfind("CDC error", 0)) << status.text();
  return false;
}

TEST(FaultSweepTest, EveryCallFailsInTurn) {
  using namespace PosixFaults;
  Scope faults;
  TempDir dir;
  EmbeddedDatabase db(dir / "blobs.fdb");
  const ISC_QUAD blob = db.createBlob(Bytes(70000, 0x5A), false, 20000);
  auto statements = [](Firebird::IReplTransaction* t, int count, FbStatus& st) {
    for (int i = 0; i < count; ++i)
      if (!ok(t->executeSql(st, ("STATEMENT " + std::to_string(i)).c_str(), i), st)) return false;
    return true;
  };
  LiteralRow small("T"), withBlob("T");
  small.addLong("ID", 1).addVarchar("NAME", "Ada", 4);
  withBlob.addLong("ID", 1).addBlob("DOC", blob);
  using T = Firebird::IReplTransaction*;
  const Scenario scenarios[] = {
      {"one block", false, true,
       [&](T t, FbStatus& st) {
         return ok(t->insertRecord(st, nullptr, nullptr, &small), st) && statements(t, 3, st);
       }},
      {"blocks with blobs", false, true,
       [&](T t, FbStatus& st) {
         return ok(t->insertRecord(st, db.attachment(), db.transaction(), &withBlob), st) &&
                ok(t->insertRecord(st, db.attachment(), db.transaction(), &withBlob), st) &&
                statements(t, 10, st);
       }},
      {"rollback into a block on disk", false, true,
       [&](T t, FbStatus& st) {
         if (!statements(t, 100, st)) return false;
         t->startSavepoint(st, 1);
         if (!statements(t, 2500, st)) return false;
         t->rollbackSavepoint(1);
         return statements(t, 5, st);
       }},
      {"rolled back to the header", false, false,
       [&](T t, FbStatus& st) {
         if (!statements(t, 2500, st)) return false;
         t->rollbackSavepoint(0);
         return true;
       }},
      {"durable", true, true, [&](T t, FbStatus& st) { return statements(t, 2000, st); }},
  };
  // errno 0 stands for a write that comes up short (100 bytes), which is no failure.
  const std::vector<int> errors = {EIO, ENOSPC, EEXIST, EACCES, EINTR};
  std::vector<int> writeErrors = errors;
  writeErrors.push_back(0);
  int points = 0;
  for (const Scenario& s : scenarios) {
    const std::string logs = dir / (std::string("logs-") + (s.durable ? "d" : "p") + "/");
    const std::string config =
        std::string("OutputDirectory = ") + logs + "\n" + (s.durable ? "DurableLogs = true\n" : "");
    // The clean run gives the log to expect.
    Bytes clean;
    // Each fault: a call kind, the call that fails, its errno (0: a write cut to 100 bytes).
    for (int k = 0; k < kCalls; ++k) {
      const Call kind = static_cast<Call>(k);
      for (const int error : kind == kWrite ? writeErrors : errors) {
        for (int nth = 0;; ++nth) {  // nth 0: no fault, the clean run, made first
          if (nth == 0 && (k != 0 || error != errors[0])) continue;
          const bool shortWrite = error == 0;
          SCOPED_TRACE(std::string(s.name) + ": " + nameOf(kind) + " " + std::to_string(nth) +
                       " fails with " + std::to_string(error));
          const std::size_t before = listDirectory("/proc/self/fd").size();
          reset();
          if (nth > 0) shortWrite ? limitAt(kind, nth, 100) : failAt(kind, nth, error);
          FbStatus status;
          Firebird::IReplPlugin* plugin = startPlugin(status, dir / "plugin.conf", config);
          bool reported = !plugin;
          bool committed = false;
          if (plugin) {
            Firebird::IReplTransaction* t = plugin->startTransaction(status, 7);
            reported = !t;
            if (t) {
              FbStatus st;
              reported = !s.body(t, st) || !ok(t->commit(st), st);
              committed = !reported;
              t->dispose();
            }
            plugin->dispose();
          } else {
            EXPECT_EQ(0u, status.text().rfind("CDC error", 0)) << status.text();
          }
          const bool fired = PosixFaults::fired() > 0;
          reset();
          EXPECT_EQ(before, listDirectory("/proc/self/fd").size()) << "a descriptor stayed open";

          // A failure the plugin must report: anything but the cleanup calls whose results are
          // ignored, and a write that only came up short.
          const bool ignored = kind == kFtruncate64 || kind == kClose || kind == kRename ||
                               kind == kRemove || (kind == kFsync && s.durable) || shortWrite;
          const bool accepted = kind == kMkdir && error == EEXIST;  // an existing path
          // A failed cut, for one, leaves a committed log (its stale tail is checked below).
          EXPECT_EQ(fired && !ignored && !accepted, reported) << "reported the wrong failures";

          Strings names = listDirectory(logs);
          if (nth == 0) {
            ASSERT_EQ(s.publishes ? 1u : 0u, names.size());
            if (s.publishes) clean = readFile(logs + names[0]);
          } else if (committed && s.publishes) {
            ASSERT_EQ(1u, names.size());
            const Bytes file = readFile(logs + names[0]);
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
            const bool kept = fired && kind == kRemove;
            EXPECT_EQ(kept ? 1u : 0u, names.size());
            for (const std::string& n : names) EXPECT_EQ(".tmp", n.substr(33));
          }
          for (const std::string& n : names) ::unlink((logs + n).c_str());
          if (nth > 0 && !fired) break;
          if (nth > 0) ++points;
        }
      }
    }
  }
  std::printf("fault sweep: %d fault points covered\n", points);
  EXPECT_GT(points, 200);
}

}  // namespace
