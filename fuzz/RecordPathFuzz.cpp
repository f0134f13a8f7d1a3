// The plugin's record path on arbitrary operations: inserts, updates and deletes of row images
// with any names, type codes, scales, character sets and values, statements, and savepoints, then
// commit. Either every operation succeeded and the published log decodes to exactly what was
// written (less what savepoint rollbacks undid), or some operation was refused with an error.
#include <dirent.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "EventDescription.h"
#include "FuzzFile.h"
#include "IReplPlugin.h"
#include "IReplTransaction.h"
#include "LiteralRow.h"
#include "LogDecoder.h"
#include "LogFormatError.h"
#include "TestFiles.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace {

struct Input {
  const std::uint8_t* p;
  std::size_t n;
  std::uint8_t byte() { return n ? (--n, *p++) : 0; }
  std::string bytes(std::size_t count) {
    count = std::min(count, n);
    std::string s(reinterpret_cast<const char*>(p), count);
    p += count, n -= count;
    return s;
  }
};

struct Plugin {
  std::string directory;
  FbStatus status;
  Firebird::IReplPlugin* plugin;
  Plugin() {
    directory = fuzzDirectory() + "fbcdc-fuzz-record-" + std::to_string(::getpid()) + "/";
    writeFile(directory.substr(0, directory.size() - 1) + ".conf",
              "OutputDirectory = " + directory + "\n");
    Firebird::IConfig* config = loadConfig(directory.substr(0, directory.size() - 1) + ".conf");
    plugin = getReplPlugin(status, 30, config);
    config->release();
    if (!plugin) __builtin_trap();
  }
};

// A field with fuzzed name, type and value; returns the description of the value as it must be
// read back ("refused" for one the writer refuses). skipped tells that the writer makes no entry
// for the field (type 0, or no name); an old image's value counts all the same.
std::string addField(Input& in, LiteralRow& row, bool old, bool& skipped) {
  const std::uint8_t nameLength = in.byte();
  std::string name = in.bytes(nameLength % 8 == 7 ? nameLength : nameLength % 8);
  name.erase(std::find(name.begin(), name.end(), '\0'), name.end());
  const std::uint8_t typeByte = in.byte();
  static const std::uint32_t common[] = {1, 2, 3, 8, 9, 11, 12, 14, 15, 16, 19, 21};
  const std::uint32_t type = typeByte < 240 ? common[typeByte % 12] : typeByte - 230;
  const auto scale = static_cast<std::int16_t>(static_cast<std::int8_t>(in.byte()));
  const std::int32_t charSet = in.byte();
  const bool null = in.byte() % 5 == 0;
  std::string value = in.bytes(in.byte() % 40);
  static const std::size_t widths[] = {0, 0, 0, 0, 0, 0, 0, 0, 2, 4, 0,
                                       4, 8, 0, 4, 4, 8, 8, 8, 8, 0, 1};
  if (type < 22 && widths[type]) value.resize(widths[type], '\0');
  if (type == 2) value.erase(std::find(value.begin(), value.end(), '\0'), value.end());
  std::string stored = value;
  if (type == 2) stored.push_back('\0');
  if (type == 3) {
    const auto length = static_cast<std::uint16_t>(value.size());
    stored = std::string(reinterpret_cast<const char*>(&length), 2) + value;
  }
  if (null) {
    row.addNull(name.empty() ? "" : name.c_str(), type);
  } else {
    row.addRaw(name.c_str(), type, stored, 0, scale, charSet);
  }
  skipped = type == 0 || name.empty();
  if (type == 0 || ((type == 17 || type == 18) && old)) return "absent";
  if (null) return "null";
  const auto cs = std::to_string(charSet & 0xFF);
  std::string v;
  auto number = [&](auto x) {
    std::memcpy(&x, value.data(), sizeof x);
    return std::to_string(x);
  };
  switch (type) {
    case 1: {
      const char pad = (charSet & 0xFF) == 1 ? '\0' : ' ';
      while (!value.empty() && value.back() == pad) value.pop_back();
      return "text1 cs" + cs + " " + hexOf(value);
    }
    case 2:
      return "text2 cs" + cs + " " + hexOf(value);
    case 3:
      return "text3 cs" + cs + " " + hexOf(value);
    case 8:
      return "short scale " + std::to_string(scale) + " " + number(std::int16_t());
    case 9:
      return "long scale " + std::to_string(scale) + " " + number(std::int32_t());
    case 19:
      return "int64 scale " + std::to_string(scale) + " " + number(std::int64_t());
    case 11: {
      float f;
      std::memcpy(&f, value.data(), 4);
      return "float " + bitsOf(static_cast<double>(f));
    }
    case 12: {
      double d;
      std::memcpy(&d, value.data(), 8);
      return "double " + bitsOf(d);
    }
    case 14:
      return "date " + number(std::int32_t());
    case 15:
      return "time " + number(std::uint32_t());
    case 16: {
      std::int32_t date;
      std::uint32_t time;
      std::memcpy(&date, value.data(), 4);
      std::memcpy(&time, value.data() + 4, 4);
      return "timestamp " + std::to_string(date) + " " + std::to_string(time);
    }
    case 21:
      return "boolean " + std::to_string(static_cast<std::uint8_t>(value[0]));
    default:
      return "refused";  // blobs without attachment, and types no log can hold
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Plugin p;
  Input in{data, size};
  FbStatus status;
  Firebird::IReplTransaction* t = p.plugin->startTransaction(status, 1);
  std::vector<std::string> expected;
  std::vector<std::pair<int, std::size_t>> savepoints;
  bool refused = false;
  for (int op = 0; in.n > 0 && op < 200; ++op) {
    const std::uint8_t kind = in.byte() % 8;
    if (kind <= 2) {
      const std::string relation = in.bytes(in.byte() % 12);
      LiteralRow row(relation.c_str());
      LiteralRow oldRow(relation.c_str());
      std::string entries;
      const int fields = in.byte() % 6;
      const int oldFields = kind == 1 ? in.byte() % 7 : 0;
      std::vector<std::string> before;
      bool skipped;
      for (int f = 0; f < oldFields; ++f) before.push_back(addField(in, oldRow, true, skipped));
      for (int f = 0; f < fields; ++f) {
        const std::string value = addField(in, row, kind == 2, skipped);
        const std::string name = row.fields().back().name;
        if (skipped) continue;
        // In an update the old image's field at the same place gives the old value.
        const std::string old =
            kind == 1 && f < oldFields ? before[static_cast<std::size_t>(f)] : "absent";
        if (value == "refused" || old == "refused") refused = true;
        entries += "|" + name + ":" +
                   (kind == 0   ? "absent>" + value
                    : kind == 2 ? value + ">absent"
                                : old + ">" + value);
      }
      std::int32_t result;
      if (kind == 0)
        result = t->insertRecord(status, nullptr, nullptr, &row);
      else if (kind == 1)
        result = t->updateRecord(status, nullptr, nullptr, &oldRow, &row);
      else
        result = t->deleteRecord(status, nullptr, nullptr, &row);
      static const char* const tags[] = {"I|", "U|", "D|"};
      expected.push_back(tags[kind] + std::string(relation.c_str()) + entries);
      if (result != 0) refused = true;
    } else if (kind == 3) {
      const std::string sql = in.bytes(in.byte());
      const std::int64_t number = in.byte();
      if (t->executeSql(status, sql.c_str(), number) != 0) refused = true;
      expected.push_back("S|" + std::string(sql.c_str()) + "|" + std::to_string(number));
    } else if (kind == 4) {
      const int n = in.byte() % 8;
      t->startSavepoint(status, n);
      savepoints.emplace_back(n, expected.size());
    } else if (kind == 5) {
      const int n = in.byte() % 8;
      t->releaseSavepoint(status, n);
      while (!savepoints.empty() && savepoints.back().first >= n) savepoints.pop_back();
    } else if (kind == 6) {
      const int n = in.byte() % 8;
      t->rollbackSavepoint(n);
      while (!savepoints.empty() && savepoints.back().first > n) savepoints.pop_back();
      if (savepoints.empty()) {
        expected.clear();
      } else {
        expected.resize(savepoints.back().second);
        savepoints.pop_back();
      }
    }
  }
  if (t->commit(status) != 0) __builtin_trap();
  t->dispose();

  std::vector<std::string> names;
  if (DIR* dir = ::opendir(p.directory.c_str())) {
    while (dirent* e = ::readdir(dir))
      if (e->d_name[0] != '.') names.push_back(p.directory + e->d_name);
    ::closedir(dir);
  }
  if (names.size() > 1) __builtin_trap();
  if (!refused && names.empty() != expected.empty()) __builtin_trap();
  if (names.empty()) return 0;
  std::vector<std::string> got;
  try {
    LogDecoder decoder;
    decoder.open(names[0]);
    for (const ChangeEvent* e = &decoder.next(); e->kind != ChangeEvent::Kind::kEnd;
         e = &decoder.next())
      got.push_back(describe(*e));
    if (!refused && got != expected) __builtin_trap();
  } catch (const LogFormatError&) {
    // Only a refused operation leaves a record unfinished.
    if (!refused) __builtin_trap();
  }
  ::unlink(names[0].c_str());
  return 0;
}
