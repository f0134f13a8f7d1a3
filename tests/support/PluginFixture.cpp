#include "PluginFixture.h"

#include <cstring>

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

void appendStatement(Bytes& stream, const char* sql, std::int64_t number) {
  stream.push_back(0x53);
  stream.push_back(0x00);
  const std::size_t n = sql ? std::strlen(sql) : 0;
  stream.push_back(static_cast<std::uint8_t>(n));
  stream.insert(stream.end(), sql, sql + n);
  stream.push_back(19);
  stream.push_back(0);
  stream.push_back(0);
  for (int i = 0; i < 8; ++i) stream.push_back(static_cast<std::uint8_t>(number >> (8 * i)));
}

void PluginFixture::SetUp() {
  writeFile(dir / "plugin.conf", "OutputDirectory = " + dir.path() + "logs\n");
  Firebird::IConfig* config = loadConfig(dir / "plugin.conf");
  plugin = getReplPlugin(status, 30, config);
  config->release();
  ASSERT_NE(nullptr, plugin) << status.text();
  logs = dir.path() + "logs/";
}

void PluginFixture::TearDown() {
  if (plugin) plugin->dispose();
}

ReplTransaction* PluginFixture::begin(std::uint64_t number) {
  Firebird::IReplTransaction* t = plugin->startTransaction(status, number);
  if (!t) ADD_FAILURE() << "startTransaction: " << status.text();
  return static_cast<ReplTransaction*>(t);
}

std::string PluginFixture::publishedLog() {
  const std::vector<std::string> names = listDirectory(logs);
  if (names.empty()) return "";
  EXPECT_EQ(1u, names.size());
  return logs + names[0];
}

Bytes PluginFixture::recordStream(const std::function<void(ReplTransaction*)>& body) {
  for (const std::string& old : listDirectory(logs)) ::remove((logs + old).c_str());
  ReplTransaction* t = begin();
  body(t);
  FbStatus commitStatus;
  EXPECT_EQ(0, t->commit(commitStatus)) << commitStatus.text();
  t->dispose();
  const std::string path = publishedLog();
  if (path.empty()) return {};
  const Bytes file = readFile(path);
  // Rebuild the stream from the blocks and check that the file is exactly its container.
  Bytes stream;
  for (std::size_t at = 0; at < file.size(); at += 32768) {
    const std::size_t n = std::min<std::size_t>(32768, file.size() - at) - 4;
    stream.insert(stream.end(), file.begin() + at, file.begin() + at + n);
  }
  EXPECT_EQ(containerOf(stream), file);
  EXPECT_EQ("5A 45 46 4F 04", hex(Bytes(stream.begin(), stream.begin() + 5)));
  EXPECT_EQ(0x7B, stream.back());
  return Bytes(stream.begin() + 5, stream.end() - 1);
}
