#include "PluginFixture.h"

#include <cstring>

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

void appendStatement(Bytes& stream, const char* sql, std::int64_t number) {
  const std::size_t n = sql ? std::strlen(sql) : 0;
  stream.insert(stream.end(), {0x53, 0x00, static_cast<std::uint8_t>(n)});
  stream.insert(stream.end(), sql, sql + n);
  stream.insert(stream.end(), {19, 0, 0});
  for (int i = 0; i < 8; ++i) stream.push_back(static_cast<std::uint8_t>(number >> (8 * i)));
}

Firebird::IReplPlugin* startPlugin(Firebird::IStatus* status, const std::string& path,
                                   const std::string& configText, int version) {
  writeFile(path, configText);
  Firebird::IConfig* config = loadConfig(path);
  Firebird::IReplPlugin* plugin = getReplPlugin(status, version, config);
  config->release();
  return plugin;
}

void PluginFixture::SetUp() {
  logs = dir.path() + "logs/";
  plugin = startPlugin(status, dir / "plugin.conf", "OutputDirectory = " + logs + "\n");
  ASSERT_NE(nullptr, plugin) << status.text();
}

ReplTransaction* PluginFixture::begin(std::uint64_t number) {
  Firebird::IReplTransaction* t = plugin->startTransaction(status, number);
  if (!t) ADD_FAILURE() << "startTransaction: " << status.text();
  return static_cast<ReplTransaction*>(t);
}

Bytes PluginFixture::recordStream(const std::function<void(ReplTransaction*)>& body) {
  clearLogs();
  ReplTransaction* t = begin();
  body(t);
  FbStatus commitStatus;
  EXPECT_EQ(0, t->commit(commitStatus)) << commitStatus.text();
  t->dispose();
  const std::string path = publishedLog();
  if (path.empty()) return {};
  const Bytes file = readFile(path);
  const Bytes stream = streamOf(file);
  EXPECT_EQ(containerOf(stream), file);
  EXPECT_EQ("5A 45 46 4F 04", hex(Bytes(stream.begin(), stream.begin() + 5)));
  EXPECT_EQ(0x7B, stream.back());
  return Bytes(stream.begin() + 5, stream.end() - 1);
}
