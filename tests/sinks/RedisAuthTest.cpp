// follow --sink redis (and status, prune) against a real redis-server that wants a login: the
// default user's password (requirepass) from FBCDC_REDIS_PASSWORD or --redis-password-file, an
// ACL user limited to the fbcdc keys and the commands the sink uses, a database other than 0, a
// Unix socket, and TLS through a local stunnel tunnel to redis-server's own TLS port on a
// certificate made here. A refused login is one line, exit status 1, and nothing written.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "PluginFixture.h"
#include "Processes.h"
#include "RedisServer.h"

namespace {

bool installed(const char* program) { return ::access(program, X_OK) == 0; }

// A reply's text: a string, status or error as it is, an integer in decimal, an array's
// elements one a line.
std::string reply(redisContext* redis, const std::vector<std::string>& args) {
  std::vector<const char*> argv;
  std::vector<std::size_t> lengths;
  for (const std::string& a : args) {
    argv.push_back(a.data());
    lengths.push_back(a.size());
  }
  auto* r = static_cast<redisReply*>(
      redisCommandArgv(redis, static_cast<int>(argv.size()), argv.data(), lengths.data()));
  if (!r) return "(no reply)";
  std::string text;
  if (r->type == REDIS_REPLY_INTEGER) text = std::to_string(r->integer);
  if (r->str) text.assign(r->str, r->len);
  for (std::size_t i = 0; i < r->elements; ++i)
    text += std::string(r->element[i]->str, r->element[i]->len) + "\n";
  freeReplyObject(r);
  return text;
}

class RedisAuthTest : public PluginFixture {
 protected:
  void publishStatement(std::uint64_t number) {
    ReplTransaction* t = begin(number);
    ASSERT_EQ(0, t->executeSql(status, "UPDATE T SET V = 1", 1));
    ASSERT_EQ(0, t->commit(status));
    t->dispose();
  }

  struct Outcome {
    int status;
    std::string out, err;
  };
  Outcome fbcdc(const std::vector<std::string>& environment, const std::vector<std::string>& args) {
    std::vector<std::string> all = {"/usr/bin/env", "-u", "FBCDC_REDIS_PASSWORD"};
    all.insert(all.end(), environment.begin(), environment.end());
    all.push_back(FBCDC_CLI_PATH);
    all.insert(all.end(), args.begin(), args.end());
    const int status = waitFor(spawn(all, dir / "out.txt", dir / "err.txt"));
    return {status, readText(dir / "out.txt"), readText(dir / "err.txt")};
  }

  // Makes a certificate authority and a certificate for 127.0.0.1 and localhost signed by it;
  // false when openssl failed.
  bool makeCertificates() {
    const std::string d = dir.path();
    writeFile(d + "san.ext", "subjectAltName=IP:127.0.0.1,DNS:localhost\n");
    const std::vector<std::vector<std::string>> steps = {
        {"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", d + "ca.key",
         "-out", d + "ca.crt", "-days", "2", "-subj", "/CN=fbcdc test CA"},
        {"openssl", "req", "-newkey", "rsa:2048", "-nodes", "-keyout", d + "redis.key", "-out",
         d + "redis.csr", "-subj", "/CN=localhost"},
        {"openssl", "x509", "-req", "-in", d + "redis.csr", "-CA", d + "ca.crt", "-CAkey",
         d + "ca.key", "-CAcreateserial", "-out", d + "redis.crt", "-days", "2", "-extfile",
         d + "san.ext"},
    };
    for (const auto& step : steps)
      if (waitFor(spawn(step, d + "openssl.out", d + "openssl.err")) != 0) return false;
    return true;
  }
};

}  // namespace

TEST_F(RedisAuthTest, PasswordAclUserDatabaseSocketAndTls) {
  for (const char* tool : {"/usr/bin/openssl", "/usr/bin/stunnel4"})
    if (!installed(tool)) GTEST_SKIP() << tool << " is not installed: no TLS server to test with";
  ASSERT_TRUE(makeCertificates()) << readText(dir / "openssl.err");
  const int tlsPort = loopbackPort();
  const std::string socket = dir / "redis.sock";
  RedisServer server(
      dir.path(), {"--requirepass", "server-pw", "--unixsocket", socket, "--unixsocketperm", "700",
                   "--tls-port", std::to_string(tlsPort), "--tls-cert-file", dir / "redis.crt",
                   "--tls-key-file", dir / "redis.key", "--tls-ca-cert-file", dir / "ca.crt",
                   "--tls-auth-clients", "no"});
  ASSERT_TRUE(server.ready()) << "redis-server did not start: " << server.errors();
  redisContext* redis = server.context();
  ASSERT_EQ("OK", reply(redis, {"AUTH", "server-pw"}));
  // The commands the sink sends; keys under fbcdc only.
  ASSERT_EQ("OK", reply(redis, {"ACL", "SETUSER", "fbcdc", "on", ">fbcdc-pw", "~fbcdc*",
                                "resetchannels", "-@all", "+type", "+get", "+set", "+xadd",
                                "+watch", "+unwatch", "+multi", "+exec", "+select", "+auth"}));

  // A local tunnel: plain TCP on a loopback port, TLS to the server, its certificate checked.
  const int tunnelPort = loopbackPort();
  writeFile(dir / "stunnel.conf",
            "foreground = yes\npid =\n[redis]\nclient = yes\naccept = 127.0.0.1:" +
                std::to_string(tunnelPort) + "\nconnect = 127.0.0.1:" + std::to_string(tlsPort) +
                "\nCAfile = " + dir / "ca.crt" + "\nverifyChain = yes\ncheckHost = localhost\n");
  const pid_t tunnel =
      spawn({"/usr/bin/stunnel4", dir / "stunnel.conf"}, dir / "stunnel.out", dir / "stunnel.err");
  for (int i = 0; i < 100 && !loopbackAccepts(tunnelPort); ++i) ::usleep(50000);

  writeFile(dir / "server.pw", "server-pw\n");
  writeFile(dir / "fbcdc.pw", "fbcdc-pw\n");
  writeFile(dir / "wrong.pw", "wrong\n");
  for (const char* f : {"server.pw", "fbcdc.pw", "wrong.pw"}) ::chmod((dir / f).c_str(), 0600);
  publishStatement(1);

  const std::string tcp = server.address();
  const std::string tunnelled = "127.0.0.1:" + std::to_string(tunnelPort);
  const std::string wrongPass = "WRONGPASS invalid username-password pair or user is disabled.\n";
  // Each row's stream prefix is fbcdc and its number, but for the user outside its keys; what it
  // sends goes to the database of --redis-db=N, or 0.
  const struct {
    std::vector<std::string> environment, options;
    std::string err;  // the whole of stderr; "?" for any; "" for exit 0
  } cases[] = {
      // The default user's password from FBCDC_REDIS_PASSWORD or a file, the ACL user.
      {{"FBCDC_REDIS_PASSWORD=server-pw"}, {"--redis", tcp}, ""},
      {{}, {"--redis", tcp, "--redis-password-file", dir / "server.pw"}, ""},
      {{},
       {"--redis", tcp, "--redis-user", "fbcdc", "--redis-password-file", dir / "fbcdc.pw"},
       ""},
      {{"FBCDC_REDIS_PASSWORD=fbcdc-pw"},
       {"--redis", tcp, "--redis-user=fbcdc", "--redis-db=3"},
       ""},
      {{"FBCDC_REDIS_PASSWORD=server-pw"}, {"--redis", "unix:" + socket}, ""},
      {{"FBCDC_REDIS_PASSWORD=fbcdc-pw"}, {"--redis", tunnelled, "--redis-user", "fbcdc"}, ""},
      // A wrong password, the ACL user with the default user's, none.
      {{},
       {"--redis", tcp, "--redis-password-file", dir / "wrong.pw"},
       "fbcdc follow: Redis at " + tcp + " refused AUTH: " + wrongPass},
      {{"FBCDC_REDIS_PASSWORD=server-pw"},
       {"--redis", "unix:" + socket, "--redis-user", "fbcdc"},
       "fbcdc follow: Redis at unix:" + socket + " refused AUTH: " + wrongPass},
      {{}, {"--redis", tcp}, "fbcdc follow: Redis: NOAUTH Authentication required.\n"},
      // The ACL user outside its keys.
      {{"FBCDC_REDIS_PASSWORD=fbcdc-pw"},
       {"--redis", tcp, "--redis-user", "fbcdc"},
       "fbcdc follow: Redis: NOPERM this user has no permissions to access one of the keys used "
       "as arguments\n"},
      {{"FBCDC_REDIS_PASSWORD=server-pw"},
       {"--redis", tcp, "--redis-db=99"},
       "fbcdc follow: Redis at " + tcp + " refused SELECT 99: ERR DB index is out of range\n"},
      // The TLS port without the tunnel.
      {{"FBCDC_REDIS_PASSWORD=server-pw"},
       {"--redis", "127.0.0.1:" + std::to_string(tlsPort)},
       "?"},
  };
  int row = 0;
  for (const auto& c : cases) {
    const bool outside = c.err.find("NOPERM") != std::string::npos;
    const std::string prefix = outside ? "other" : "fbcdc" + std::to_string(++row);
    int database = 0;
    for (const std::string& o : c.options)
      if (o.rfind("--redis-db=", 0) == 0) database = std::stoi(o.substr(11));
    SCOPED_TRACE(prefix);
    const int expected = c.err.empty() ? 0 : 1;
    std::vector<std::string> args = {"follow",          logs,  "--once", "--sink", "redis",
                                     "--stream-prefix", prefix};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const Outcome r = fbcdc(c.environment, args);
    EXPECT_EQ(expected, r.status) << r.err;
    if (c.err != "?") {
      EXPECT_EQ(c.err, r.err);
    }
    EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n') + (expected == 0)) << r.err;
    // What reached Redis, in every database the server has: the log and its position, in the
    // database asked for, or nothing at all.
    for (int db = 0; db < 16; ++db) {
      ASSERT_EQ("OK", reply(redis, {"SELECT", std::to_string(db)}));
      const std::string keys = reply(redis, {"KEYS", prefix + "*"});
      if (expected == 0 && db == database) {
        EXPECT_EQ(prefix + ".checkpoint\n" + prefix + ":transaction\n" == keys ||
                      prefix + ":transaction\n" + prefix + ".checkpoint\n" == keys,
                  true)
            << "database " << db << ": " << keys;
        EXPECT_NE(std::string::npos,
                  reply(redis, {"GET", prefix + ".checkpoint"}).find("_0000000000000001.fbl"));
      } else {
        EXPECT_EQ("", keys) << "database " << db;
      }
    }
    ASSERT_EQ("OK", reply(redis, {"SELECT", "0"}));
  }

  // status and prune read the position as the same logins.
  const Outcome status =
      fbcdc({"FBCDC_REDIS_PASSWORD=fbcdc-pw"},
            {"status", logs, "--redis", tcp, "--stream-prefix", "fbcdc3", "--redis-user", "fbcdc"});
  EXPECT_EQ(0, status.status) << status.err;
  EXPECT_NE(std::string::npos, status.out.find("_0000000000000001.fbl")) << status.out;
  const Outcome prune = fbcdc({"FBCDC_REDIS_PASSWORD=server-pw"},
                              {"prune", logs, "--consumer", "redis:unix:" + socket, "--dry-run"});
  EXPECT_EQ(0, prune.status) << prune.err;
  stop(tunnel, SIGTERM);
}
