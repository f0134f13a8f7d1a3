// The whole way through a real Firebird server: a source made and filled through the server, a
// workload of several threads running (the plugin recording) while the snapshot is taken, a replica
// whose schema gbak makes from the source's metadata, filled by apply --snapshot from the snapshot
// and the logs, equal to the source. Several seeds; in some the snapshot and the applier are
// killed at random points and run again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <random>

#include "FirebirdServer.h"
#include "Processes.h"
#include "SnapshotManifest.h"
#include "TestFiles.h"

namespace {

// Runs a command to its end; its exit status, its stderr in err.
int run(const std::vector<std::string>& args, const std::string& out, const std::string& err) {
  const pid_t pid = spawn(args, out, err);
  return pid > 0 ? waitFor(pid) : -1;
}

// Runs a command, killing it at a random point (or never, when kill is false) and running it
// again until it ends by itself; the number of kills.
int runKilled(const std::vector<std::string>& args, bool kill, std::mt19937& random,
              const std::string& err, int maxKills = 3) {
  for (int kills = 0;;) {
    const pid_t pid = spawn(args, "/dev/null", err);
    if (pid <= 0) return -1;
    int status;
    if (kill && kills < maxKills) {
      ::usleep(50000 + random() % 600000);
      status = stop(pid, SIGKILL);
    } else {
      status = waitFor(pid);
    }
    if (status == -1) {
      ++kills;
      continue;
    }
    EXPECT_EQ(0, status) << readText(err);
    return kills;
  }
}

TEST(SnapshotServerTest, ReplicaFromASnapshotTakenUnderLoadEqualsTheSource) {
  if (::access(FirebirdServer::kBinary, X_OK) != 0 || ::access("/usr/bin/gbak", X_OK) != 0)
    GTEST_SKIP() << "needs Debian's Firebird server (" << FirebirdServer::kBinary << ") and gbak";
  struct Case {
    unsigned seed;
    bool killSnapshot;
    bool killApplier;
  };
  const Case cases[] = {{1, false, false}, {2, true, false}, {3, true, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE("seed " + std::to_string(c.seed));
    std::mt19937 random(c.seed);
    TempDir dir;
    FirebirdServer server(dir.path());
    ASSERT_TRUE(server.ready()) << server.why();
    ::setenv("ISC_USER", "SYSDBA", 1);
    ::setenv("ISC_PASSWORD", server.password().c_str(), 1);
    const std::string source = server.database(dir / "source.fdb");
    const std::string replica = server.database(dir / "replica.fdb");
    const std::string seed = std::to_string(c.seed);
    const std::vector<std::string> capture = {FBCDC_CLI_PATH, "capture",    "--database", source,
                                              "--output",     dir / "logs", "--max-blob", "32768"};
    auto with = [](std::vector<std::string> a, const std::vector<std::string>& more) {
      a.insert(a.end(), more.begin(), more.end());
      return a;
    };

    // A source with rows (and the logs of their transactions) made through the server.
    ASSERT_EQ(0, run(with(capture, {"--seed", seed, "--transactions", "120", "--threads", "2"}),
                     "/dev/null", dir / "fill.err"))
        << readText(dir / "fill.err");
    // Writers on hot rows, statements that add to counters, rows deleted and inserted again, while
    // the snapshot is taken.
    const pid_t load = spawn(with(capture, {"--seed", seed + "00", "--transactions", "500",
                                            "--threads", "4", "--hot-rows", "4"}),
                             dir / "load.out", dir / "load.err");
    ASSERT_GT(load, 0);
    ::usleep(200000 + random() % 800000);
    runKilled({FBCDC_CLI_PATH, "snapshot", "--database", source, "--output", dir / "snap",
               "--chunk-rows", "40"},
              c.killSnapshot, random, dir / "snapshot.err");
    ASSERT_EQ(0, waitFor(load)) << readText(dir / "load.err");
    const auto manifest = SnapshotManifest::load(dir / "snap");
    ASSERT_TRUE(manifest && manifest->complete) << readText(dir / "snapshot.err");

    // The replica's empty schema from the source's metadata, as the docs show.
    const std::string password = server.password();
    ASSERT_EQ(0, run({"gbak", "-b", "-m", "-user", "SYSDBA", "-password", password, source,
                      dir / "schema.fbk"},
                     dir / "gbak.out", dir / "gbak.err"))
        << readText(dir / "gbak.err");
    ASSERT_EQ(0, run({"gbak", "-c", "-user", "SYSDBA", "-password", password, dir / "schema.fbk",
                      replica},
                     dir / "gbak.out", dir / "gbak.err"))
        << readText(dir / "gbak.err");

    runKilled(
        {FBCDC_CLI_PATH, "apply", "--database", replica, "--snapshot", dir / "snap", dir / "logs"},
        c.killApplier, random, dir / "apply.err");
    EXPECT_EQ(0, run({FBCDC_CLI_PATH, "compare", source, replica}, dir / "compare.out",
                     dir / "compare.err"))
        << readText(dir / "compare.out") << readText(dir / "compare.err");
    // The last run's summary: the boundary, or, when a kill came after the manifest was complete,
    // that it was.
    EXPECT_THAT(readText(dir / "snapshot.err"),
                ::testing::AnyOf(::testing::HasSubstr("boundary: transaction"),
                                 ::testing::HasSubstr("is complete already")));
    EXPECT_THAT(readText(dir / "compare.out"), ::testing::StartsWith("equal:"));
    // A second run has nothing to do; without --snapshot the applier does not take the replica
    // for one it may go on with; the source holds rows, so it is no replica to fill.
    const std::vector<std::string> apply = {FBCDC_CLI_PATH, "apply", "--database"};
    const struct {
      std::vector<std::string> args;
      int status;
      std::string out, err;
    } afterwards[] = {
        {{replica, "--snapshot", dir / "snap", dir / "logs"}, 0, "apply: 0 snapshot files", ""},
        {{replica, "--snapshot", dir / "snap", dir / "logs"}, 0, "apply: 0 logs", ""},
        {{replica, dir / "logs"}, 1, "", "progress of a snapshot"},
        {{source, "--snapshot", dir / "snap", dir / "logs"}, 1, "", "holds rows"},
    };
    for (const auto& a : afterwards) {
      SCOPED_TRACE(a.out + a.err);
      EXPECT_EQ(a.status, run(with(apply, a.args), dir / "apply.out", dir / "apply.err"));
      EXPECT_THAT(readText(dir / "apply.out"), ::testing::HasSubstr(a.out));
      EXPECT_THAT(readText(dir / "apply.err"), ::testing::HasSubstr(a.err));
    }
  }
}

}  // namespace
