// The capture's split of the time inside the plugin's calls: a file call counts only inside a
// plugin call and outside a server call, and a real capture sees the plugin's file calls (the
// program exports the definitions the plugin binds to) and its blob reads only when there are
// blobs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <thread>

#include "PluginCallTimes.h"
#include "ReplicaRuns.h"

namespace {

TEST(PluginCallTimesTest, FileCallsCountInsidePluginCallsOnly) {
  ASSERT_TRUE(PluginCallTimes::filesSeen()) << "the program does not export its file calls";
  // Where the thread is when it writes, and which totals the write (and the wait) may move.
  const struct {
    bool inPlugin, inServer, files, server;
  } cases[] = {{false, false, false, false}, {true, false, true, false}, {true, true, false, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "in plugin " << c.inPlugin << ", in server " << c.inServer);
    std::thread([&] {
      {
        std::optional<PluginCallTimes::InPlugin> plugin;
        std::optional<PluginCallTimes::InServer> server;
        if (c.inPlugin) plugin.emplace();
        if (c.inServer) server.emplace();
        const int fd = ::open("/dev/null", O_WRONLY);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        ASSERT_EQ(1, ::write(fd, "x", 1));
        ::close(fd);
      }
      const PluginCallTimes::Totals t = PluginCallTimes::thisThread();
      EXPECT_EQ(c.inPlugin, t.plugin >= 2000000);
      EXPECT_EQ(c.files, t.files > 0);
      EXPECT_LT(t.files, 2000000) << "the wait between the calls is not a file call";
      EXPECT_EQ(c.server, t.server >= 2000000);
    }).join();
  }
}

TEST(PluginCallTimesTest, ACaptureSplitsItsPluginTime) {
  for (const std::size_t maxBlob : {std::size_t{64 << 10}, std::size_t{0}}) {
    SCOPED_TRACE(maxBlob);
    TempDir dir;
    const CaptureSummary s = captureRun(dir, FBCDC_PLUGIN_PATH, 3, 1, 20, maxBlob);
    EXPECT_TRUE(s.filesSeen);
    EXPECT_GT(s.fileSeconds, 0);
    EXPECT_EQ(maxBlob > 0, s.serverSeconds > 0) << "blob reads are the only server calls";
    EXPECT_GT(s.pluginSeconds, s.serverSeconds + s.fileSeconds) << "no own work left";
  }
}

}  // namespace
