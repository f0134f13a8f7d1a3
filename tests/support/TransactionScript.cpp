#include "TransactionScript.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "EventDescription.h"
#include "IReplTransaction.h"
#include "LiteralRow.h"
#include "LogDecoder.h"
#include "LogFormatError.h"
#include "TestFiles.h"

TransactionScript::TransactionScript(const std::uint8_t* data, std::size_t size, bool valid,
                                     const Blobs& blobs)
    : data_(data), size_(size), valid_(valid), blobs_(blobs) {}

std::string TransactionScript::bytes(std::size_t count) {
  count = std::min(count, size_);
  std::string s(reinterpret_cast<const char*>(data_), count);
  data_ += count, size_ -= count;
  return s;
}

std::string TransactionScript::addField(LiteralRow& row, bool old, bool& skipped) {
  const std::uint8_t nameLength = byte();
  std::string name = bytes(nameLength % 8 == 7 ? nameLength : nameLength % 8);
  if (valid_) name.resize(std::min<std::size_t>(name.size(), 252));
  name.erase(std::find(name.begin(), name.end(), '\0'), name.end());
  const std::uint8_t typeByte = byte();
  // The types a log holds, and a blob when there are blobs; past 239, any code from 10 to 25.
  static const std::uint32_t kinds[] = {1, 2, 3, 8, 9, 11, 12, 14, 15, 16, 19, 21, 17};
  const std::uint32_t type = typeByte < 240 || valid_
                                 ? kinds[typeByte % (blobs_.values.empty() ? 12 : 13)]
                                 : typeByte - 230u;
  const auto scale = static_cast<std::int16_t>(static_cast<std::int8_t>(byte()));
  const std::int32_t charSet = byte();
  const bool null = byte() % 5 == 0;
  std::string value = bytes(byte() % 40);
  skipped = type == 0 || name.empty();
  const bool blob = type == 17 || type == 18;
  if (blob && !blobs_.values.empty()) {
    const auto& b = blobs_.values[value.size() % blobs_.values.size()];
    null ? row.addNull(name.c_str(), type) : row.addBlob(name.c_str(), b.first);
    return old ? "absent" : null ? "null" : b.second;
  }
  static const std::size_t widths[] = {0, 0, 0, 0, 0, 0, 0, 0, 2, 4, 0,
                                       4, 8, 0, 4, 4, 8, 8, 8, 8, 0, 1};
  if (type < 22 && widths[type]) value.resize(widths[type], '\0');
  if (type == 2) value.erase(std::find(value.begin(), value.end(), '\0'), value.end());
  std::string stored = type == 3 ? std::string{static_cast<char>(value.size()), '\0'} : "";
  stored += type == 2 ? value + '\0' : value;
  null ? row.addNull(name.c_str(), type)
       : row.addRaw(name.c_str(), type, stored, 0, scale, charSet);
  if (type == 0 || (blob && old)) return "absent";
  if (null) return "null";
  std::uint64_t raw = 0;
  std::memcpy(&raw, value.data(), std::min<std::size_t>(value.size(), 8));
  float f;
  std::memcpy(&f, &raw, 4);
  const std::string scaled = " scale " + std::to_string(scale) + " ";
  // A CHAR drops the pad of its character set.
  while (type == 1 && !value.empty() && value.back() == (charSet == 1 ? '\0' : ' '))
    value.pop_back();
  if (type <= 3)
    return "text" + std::to_string(type) + " cs" + std::to_string(charSet) + " " + hexOf(value);
  if (type == 8) return "short" + scaled + std::to_string(static_cast<std::int16_t>(raw));
  if (type == 9) return "long" + scaled + std::to_string(static_cast<std::int32_t>(raw));
  if (type == 19) return "int64" + scaled + std::to_string(static_cast<std::int64_t>(raw));
  if (type == 11) return "float " + bitsOf(static_cast<double>(f));
  if (type == 12) return "double " + std::to_string(raw);
  if (type == 14) return "date " + std::to_string(static_cast<std::int32_t>(raw));
  if (type == 15) return "time " + std::to_string(static_cast<std::uint32_t>(raw));
  if (type == 16)
    return "timestamp " + std::to_string(static_cast<std::int32_t>(raw)) + " " +
           std::to_string(raw >> 32);
  if (type == 21) return "boolean " + std::to_string(raw);
  return "refused";  // blobs without attachment, and types no log can hold
}

std::string TransactionScript::play(Firebird::IReplPlugin* plugin, std::uint64_t number,
                                    const std::string& directory) {
  FbStatus status;
  Firebird::IReplTransaction* t = plugin->startTransaction(status, number);
  if (!t) return "startTransaction: " + status.text();
  std::vector<std::string> expected;
  std::vector<std::pair<int, std::size_t>> savepoints;  // number, events before it
  std::string refused;                                  // the first refusal
  for (int op = 0; size_ > 0 && op < 200; ++op) {
    const std::uint8_t kind = byte() % 8;
    std::int32_t result = 0;
    status.get()->init();  // as the server hands every call a clean status
    if (kind <= 2) {
      const std::string relation = bytes(byte() % 12);
      LiteralRow row(relation.c_str()), oldRow(relation.c_str());
      const int fields = byte() % 6;
      const int oldFields = kind == 1 ? byte() % 7 : 0;
      std::vector<std::string> before;
      bool skipped;
      for (int f = 0; f < oldFields; ++f) before.push_back(addField(oldRow, true, skipped));
      std::string entries;
      for (int f = 0; f < fields; ++f) {
        const std::string value = addField(row, kind == 2, skipped);
        if (skipped) continue;
        // In an update the old image's field at the same place gives the old value.
        const std::string old = kind == 1 && f < oldFields ? before[f] : "absent";
        if (value == "refused" || old == "refused") refused = refused.empty() ? "value" : refused;
        entries += "|" + row.fields().back().name + ":" +
                   (kind == 0   ? "absent>" + value
                    : kind == 2 ? value + ">absent"
                                : old + ">" + value);
      }
      Firebird::IAttachment* a = blobs_.attachment;
      Firebird::ITransaction* tr = blobs_.transaction;
      result = kind == 0   ? t->insertRecord(status, a, tr, &row)
               : kind == 1 ? t->updateRecord(status, a, tr, &oldRow, &row)
                           : t->deleteRecord(status, a, tr, &row);
      expected.push_back(std::string(1, "IUD"[kind]) + "|" + relation.c_str() + entries);
    } else if (kind == 3 || (kind == 7 && expected.size() < 2000)) {
      // One statement, or a run of them long enough to cross blocks.
      const int count = kind == 3 ? 1 : byte() % 64;
      const std::size_t length = byte();
      for (int i = 0; i < count && result == 0; ++i) {
        const std::string sql = kind == 3 ? bytes(length) : std::string(length, 'a' + i % 26);
        const std::int64_t n = kind == 3 ? byte() : i;
        result = t->executeSql(status, sql.c_str(), n);
        expected.push_back("S|" + std::string(sql.c_str()) + "|" + std::to_string(n));
      }
    } else if (kind <= 6) {
      const int n = byte() % 8;
      if (kind == 4) {
        t->startSavepoint(status, n);
        savepoints.emplace_back(n, expected.size());
      } else if (kind == 5) {
        t->releaseSavepoint(status, n);
        while (!savepoints.empty() && savepoints.back().first >= n) savepoints.pop_back();
      } else {
        // Back to the newest savepoint not started inside n, whatever its number; it ends too.
        t->rollbackSavepoint(n);
        while (!savepoints.empty() && savepoints.back().first > n) savepoints.pop_back();
        expected.resize(savepoints.empty() ? 0 : savepoints.back().second);
        if (!savepoints.empty()) savepoints.pop_back();
      }
    }
    if (result != 0 && refused.empty()) refused = status.text();
  }
  // Data that ran out chooses the commit.
  const bool commit = byte() % 8 != 7;
  const bool committed = commit && t->commit(status) == 0;
  const std::string failure = valid_ && !refused.empty() ? "refused: " + refused
                              : commit && !committed     ? "commit: " + status.text()
                                                         : "";
  t->dispose();
  // The transaction's own files, named with its number.
  char suffix[20];
  std::snprintf(suffix, sizeof suffix, "_%016llx.", static_cast<unsigned long long>(number));
  Strings names;
  for (const std::string& name : listDirectory(directory))
    if (name.find(suffix) != std::string::npos) names.push_back(name);
  if (names.size() > (committed ? 1u : 0u))
    return failure + " " + std::to_string(names.size()) + " files left";
  if (!failure.empty()) return failure;
  if (names.empty()) return expected.empty() || !refused.empty() ? "" : "nothing published";
  published = directory + names[0];
  std::vector<std::string> got;
  try {
    LogDecoder decoder;
    decoder.open(published);
    for (const ChangeEvent* e = &decoder.next(); e->kind != ChangeEvent::Kind::kEnd;
         e = &decoder.next())
      got.push_back(describe(*e));
  } catch (const LogFormatError& e) {
    // Only a refused operation leaves a record unfinished.
    return refused.empty() ? std::string("the log does not decode: ") + e.what() : "";
  }
  if (!refused.empty() || got == expected) return "";
  const auto [g, e] = std::mismatch(got.begin(), got.end(), expected.begin(), expected.end());
  return "event " + std::to_string(e - expected.begin()) + " of " +
         std::to_string(expected.size()) + ": " + (g == got.end() ? "none" : *g) + ", expected " +
         (e == expected.end() ? "none" : *e);
}
