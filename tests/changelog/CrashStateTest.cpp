// Lost writes: the file-system calls of a run of transactions are recorded, and every crash state
// is rebuilt in memory: each prefix, synced calls kept, unsynced ones kept or dropped in every
// combination (a seeded sample when many). "Any" drops them independently, as POSIX allows;
// "ordered" keeps directory changes in order, a rename or removal only with the earlier writes to
// its file (a journalling file system). No state holds a ".fbl" that is not whole; with
// DurableLogs = true every transaction whose dispose returned has its ".fbl" whole. A transaction
// that records nothing touches no file.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "IReplTransaction.h"
#include "LogName.h"
#include "PluginFixture.h"

namespace {

using PosixFaults::Recorded;

// One recorded call, with the file it concerns: an inode of this run's own numbering, or -1 for
// the directory, or -2 for none.
struct Op {
  Recorded call;
  int inode;
  bool data, directory, barrier;  // changes a file's contents, changes the directory, syncs
};

std::vector<Op> resolve(const std::vector<Recorded>& calls) {
  std::vector<Op> ops;
  std::map<int, int> inodes;  // descriptor -> inode
  std::map<std::string, int> named;
  int next = 0;
  for (const Recorded& r : calls) {
    using namespace PosixFaults;
    Op op{r, -2, r.call == kWrite || r.call == kFtruncate64, r.call == kRename || r.call == kRemove,
          r.call == kFsync || r.call == kFdatasync};
    if (op.data || op.barrier) op.inode = inodes[r.fd];
    if (r.call == kRename) op.inode = named[r.path2] = named[r.path];
    if (r.call == kRemove) op.inode = named[r.path];
    if (r.call == kOpen && (r.offset & O_DIRECTORY)) {
      inodes[r.fd] = -1;
    } else if (r.call == kOpen && (r.offset & O_CREAT)) {
      op.inode = inodes[r.fd] = named[r.path] = next++;
      op.directory = true;
    } else if (r.call == kOpen) {
      inodes[r.fd] = named.count(r.path) ? named[r.path] : -2;
    }
    ops.push_back(op);
  }
  return ops;
}

// The directory and files that a crash after the first `end` calls leaves, keeping the calls in
// `kept`.
std::map<std::string, std::string> rebuild(const std::vector<Op>& ops, std::size_t end,
                                           const std::vector<bool>& kept) {
  std::map<std::string, int> names;
  std::map<int, std::string> contents;
  for (std::size_t i = 0; i < end; ++i) {
    if (!kept[i]) continue;
    const Op& op = ops[i];
    const Recorded& r = op.call;
    if (r.call == PosixFaults::kOpen && op.directory) names[r.path] = op.inode;
    if (r.call == PosixFaults::kRename && names.count(r.path)) {
      names[r.path2] = names[r.path];
      names.erase(r.path);
    }
    if (r.call == PosixFaults::kRemove) names.erase(r.path);
    std::string& c = contents[op.inode];
    if (r.call == PosixFaults::kWrite) {
      const auto at = static_cast<std::size_t>(r.offset);
      if (c.size() < at + r.data.size()) c.resize(at + r.data.size(), '\0');
      c.replace(at, r.data.size(), r.data);
    }
    if (r.call == PosixFaults::kFtruncate64) c.resize(static_cast<std::size_t>(r.offset), '\0');
  }
  std::map<std::string, std::string> files;
  for (const auto& [name, inode] : names) files[name] = contents[inode];
  return files;
}

struct Recording {
  std::vector<Op> ops;
  // For each transaction that published: where its dispose returned, its final name, its log.
  struct Published {
    std::size_t disposed;
    std::string name, log;
  };
  std::vector<Published> published;
};

class CrashStateTest : public ::testing::Test {
 protected:
  // Records a run of transactions: small, several blocks, a rollback into a block on disk, one
  // given up, and two that record nothing (one committed, one given up): they publish nothing.
  // Each run has a directory of its own: runs in different seconds publish under other names.
  Recording record(bool durable, const std::string& name) {
    const std::string logs = dir / (name + "/");
    FbStatus status;
    PosixFaults::startRecording();
    Firebird::IReplPlugin* plugin =
        startPlugin(status, dir / "plugin.conf",
                    "OutputDirectory = " + logs + "\n" + (durable ? "DurableLogs = true\n" : ""));
    std::vector<std::pair<std::uint64_t, std::size_t>> disposed;
    auto transaction = [&](std::uint64_t number, int statements, int rollbackAfter, bool commit) {
      Firebird::IReplTransaction* t = plugin->startTransaction(status, number);
      for (int i = 0; i < statements; ++i) {
        if (i == rollbackAfter) t->startSavepoint(status, 1);
        EXPECT_EQ(0, t->executeSql(status, std::string(200, 'a' + i % 26).c_str(), i));
      }
      if (rollbackAfter >= 0) t->rollbackSavepoint(1);
      EXPECT_EQ(0, commit ? t->commit(status) : 0);
      t->dispose();
      disposed.emplace_back(number, PosixFaults::takeRecordingSize());
    };
    transaction(1, 3, -1, true);
    transaction(2, 400, -1, true);
    transaction(3, 500, 100, true);
    transaction(4, 300, -1, false);
    transaction(5, 0, -1, true);
    transaction(6, 0, -1, false);
    EXPECT_EQ(disposed[3].second, disposed[5].second) << "a transaction of nothing touched a file";
    plugin->dispose();
    Recording run;
    run.ops = resolve(PosixFaults::takeRecording());
    for (const std::string& name : listDirectory(logs)) {
      LogName parsed;
      EXPECT_TRUE(LogName::parse(name, parsed) && parsed.published) << name;
      for (const auto& [number, at] : disposed) {
        if (number != parsed.transaction) continue;
        run.published.push_back({at, logs + name, readText(logs + name)});
      }
    }
    EXPECT_EQ(3u, run.published.size());
    return run;
  }

  PosixFaults::Scope faults;
  TempDir dir;
};

TEST_F(CrashStateTest, EveryCrashStateKeepsItsPromises) {
  std::mt19937 random(13);
  std::size_t states = 0;
  for (const auto& [durable, ordered] :
       {std::pair{true, false}, std::pair{true, true}, std::pair{false, true}}) {
    SCOPED_TRACE(std::string(durable ? "durable" : "default") + (ordered ? ", ordered" : ", any"));
    const Recording run = record(
        durable, std::string(durable ? "durable" : "default") + (ordered ? "-ordered" : "-any"));
    const std::vector<Op>& ops = run.ops;
    for (std::size_t end = 0; end <= ops.size(); ++end) {
      // What a sync before the crash has made safe: data of a synced file, and every change of
      // the directory before a sync of the directory.
      std::vector<bool> safe(end, false);
      for (std::size_t j = 0; j < end; ++j) {
        if (!ops[j].barrier) continue;
        for (std::size_t i = 0; i < j; ++i)
          if (ops[j].inode == -1 ? ops[i].directory : ops[i].data && ops[i].inode == ops[j].inode)
            safe[i] = true;
      }
      std::vector<std::size_t> open;
      for (std::size_t i = 0; i < end; ++i)
        if (!safe[i] && (ops[i].data || ops[i].directory)) open.push_back(i);
      const std::size_t combinations =
          open.size() <= 10 ? (std::size_t{1} << open.size()) : std::size_t{1024};
      for (std::size_t k = 0; k < combinations; ++k) {
        std::vector<bool> kept(end, true);
        for (std::size_t b = 0; b < open.size(); ++b)
          kept[open[b]] = open.size() <= 10 ? (k >> b & 1) : random() % 2;
        if (ordered) {
          // Directory changes keep their order: a dropped one drops every later one; and a rename
          // or removal keeps every earlier write to its file.
          bool dropped = false;
          for (std::size_t i = 0; i < end; ++i) {
            if (!ops[i].directory) continue;
            if (dropped) kept[i] = safe[i];
            dropped = dropped || !kept[i];
          }
          for (std::size_t i = 0; i < end; ++i) {
            if (!kept[i] || !ops[i].directory || ops[i].call.call == PosixFaults::kOpen) continue;
            for (std::size_t w = 0; w < i; ++w)
              if (ops[w].data && ops[w].inode == ops[i].inode) kept[w] = true;
          }
        }
        ++states;
        const std::map<std::string, std::string> files = rebuild(ops, end, kept);
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
      }
    }
  }
  std::printf("lost-write simulation: %zu crash states checked\n", states);
}

}  // namespace
