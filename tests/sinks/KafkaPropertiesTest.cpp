// follow -F FILE: librdkafka's settings from a file of KEY=VALUE lines (# comments), as kcat reads
// them, so that SASL and SSL secrets stay off the command line; -X given as well wins. Checked on
// librdkafka's mock cluster: a log delivered only where the file's bootstrap.servers points, and
// the delivery failing where -X points elsewhere.
#include <gtest/gtest.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <string>
#include <vector>

#include "PluginFixture.h"
#include "Processes.h"

namespace {

class KafkaPropertiesTest : public PluginFixture {};

}  // namespace

TEST_F(KafkaPropertiesTest, FileSettingsAndOverrides) {
  char error[512];
  rd_kafka_t* host = rd_kafka_new(RD_KAFKA_PRODUCER, rd_kafka_conf_new(), error, sizeof error);
  ASSERT_NE(nullptr, host) << error;
  rd_kafka_mock_cluster_t* cluster = rd_kafka_mock_cluster_new(host, 1);
  const std::string brokers = rd_kafka_mock_cluster_bootstraps(cluster);
  rd_kafka_mock_topic_create(cluster, "fbcdc.transaction", 1, 1);
  ReplTransaction* t = begin(1);
  ASSERT_EQ(0, t->executeSql(status, "UPDATE T SET V = 1", 1));
  ASSERT_EQ(0, t->commit(status));
  t->dispose();

  // Nothing listens on port 1: what reaches the mock cluster went where the file said.
  const std::string nowhere = "127.0.0.1:1";
  writeFile(dir / "client.properties",
            "# the cluster\n"
            "   bootstrap.servers = " +
                brokers +
                "  \n"
                "\n"
                "message.timeout.ms=3000\n"
                "acks=not-a-value\n");
  writeFile(dir / "bad.properties", "# fine\nlinger.ms=5\nsasl.password secret\n");
  const struct {
    const char* name;
    std::vector<std::string> options;
    int status;
    std::string err;  // the whole of stderr, or "" for any; delivered when status is 0
  } cases[] = {
      {"-X over a value librdkafka would refuse",
       {"-F", dir / "client.properties", "-X", "acks=all"},
       0,
       ""},
      {"-X bootstrap.servers over the file's",
       {"-F", dir / "client.properties", "-X", "acks=all", "-X", "bootstrap.servers=" + nowhere},
       1,
       ""},
      {"the file's value itself, refused",
       {"-F", dir / "client.properties"},
       2,
       "fbcdc follow: Kafka setting acks=not-a-value: Invalid value for configuration property "
       "\"request.required.acks\" (see fbcdc follow --help)\n"},
      {"a line that is not KEY=VALUE",
       {"-F", dir / "bad.properties"},
       2,
       "fbcdc follow: -F: " + dir / "bad.properties" +
           " line 3: not KEY=VALUE (# starts a comment) (see fbcdc follow --help)\n"},
      {"a file that is not there",
       {"-F", dir / "missing"},
       2,
       "fbcdc follow: -F: " + dir / "missing" +
           ": No such file or directory (see fbcdc follow --help)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ::remove((dir / "checkpoint").c_str());
    std::vector<std::string> args = {FBCDC_CLI_PATH, "follow",          logs,        "--once",
                                     "--sink",       "kafka",           "--brokers", nowhere,
                                     "--checkpoint", dir / "checkpoint"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const int exit = waitFor(spawn(args, dir / "out.txt", dir / "err.txt"));
    const std::string err = readText(dir / "err.txt");
    EXPECT_EQ(c.status, exit) << err;
    if (!c.err.empty()) {
      EXPECT_EQ(c.err, err);
    }
    EXPECT_EQ(c.status == 0,
              fileExists(dir / "checkpoint") &&
                  readText(dir / "checkpoint").find("_0000000000000001.fbl") != std::string::npos)
        << err;
  }
  rd_kafka_mock_cluster_destroy(cluster);
  rd_kafka_destroy(host);
}
