// Every POSIX call of the plugin (its start included) fails in turn with each errno, and writes and
// reads come up short, until no fault fires any more. After every run the failure was reported as
// a "CDC error", no descriptor stayed open, and the output directory holds exactly the expected
// log or none (a ".tmp" only where a failed rename or remove keeps one).
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
  // Each fault: a call, its errno, or (errno 0) the most bytes it transfers: a short write that is
  // continued, a write that makes no progress, and a block read back short or not at all.
  struct Fault {
    Call call;
    int error;
    long limit;
  };
  std::vector<Fault> kinds = {{kWrite, 0, 100}, {kWrite, 0, 0}, {kRead, 0, 32767}, {kRead, 0, 0}};
  for (int k = 0; k < kCalls; ++k)
    for (const int error : {EIO, ENOSPC, EEXIST, EACCES, EINTR})
      kinds.push_back({static_cast<Call>(k), error, 0});
  int points = 0;
  for (const Scenario& s : scenarios) {
    const std::string logs = dir / (std::string("logs-") + (s.durable ? "d" : "p") + "/");
    const std::string config =
        std::string("OutputDirectory = ") + logs + "\n" + (s.durable ? "DurableLogs = true\n" : "");
    Bytes clean;  // the log that the run without a fault publishes
    for (std::size_t f = 0; f <= kinds.size(); ++f) {
      const Fault fault = f == 0 ? Fault{kOpen, 0, -1} : kinds[f - 1];
      const Call kind = fault.call;
      for (int nth = f == 0 ? 0 : 1;; ++nth) {
        SCOPED_TRACE(std::string(s.name) + ": " + nameOf(kind) + " " + std::to_string(nth) +
                     " fails with " + std::to_string(fault.error) + " or transfers " +
                     std::to_string(fault.limit));
        const std::size_t before = listDirectory("/proc/self/fd").size();
        reset();
        if (nth > 0 && fault.error) failAt(kind, nth, fault.error);
        if (nth > 0 && !fault.error) limitAt(kind, nth, fault.limit);
        FbStatus status, st;
        Firebird::IReplPlugin* plugin = startPlugin(status, dir / "plugin.conf", config);
        Firebird::IReplTransaction* t = plugin ? plugin->startTransaction(status, 7) : nullptr;
        const bool committed = t && s.body(t, st) && ok(t->commit(st), st);
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
                             (kind == kWrite && fault.limit > 0) ||
                             (kind == kMkdir && fault.error == EEXIST);
        EXPECT_EQ(fired && !ignored, !committed) << "reported the wrong failures";

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
        if (nth > 0 && !fired) break;
        points += nth > 0;
        if (nth == 0) break;
      }
    }
  }
  std::printf("fault sweep: %d fault points covered\n", points);
  EXPECT_GT(points, 200);
}

}  // namespace
