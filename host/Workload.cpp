#include "Workload.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "ResultSetRow.h"

namespace {

// The sequence that key ranges are taken from. It starts below the first range, leaving the keys
// under it to the hot rows.
const char kKeySequence[] = "WORKLOAD_KEYS";
// The columns a hot-row update sets: those of ITEMS after the key and before the blobs and the
// array, which the hot transaction does not make.
constexpr std::size_t kHotFirst = 1, kHotEnd = 21;

struct Column {
  const char* name;
  const char* type;
};

const Column kItemColumns[] = {
    {"ID", "BIGINT NOT NULL PRIMARY KEY"},
    {"C_NONE", "CHAR(12) CHARACTER SET NONE"},
    {"V_NONE", "VARCHAR(40) CHARACTER SET NONE"},
    {"C_UTF8", "CHAR(10) CHARACTER SET UTF8"},
    {"V_UTF8", "VARCHAR(60) CHARACTER SET UTF8"},
    {"C_WIN", "CHAR(16) CHARACTER SET WIN1252"},
    {"V_WIN", "VARCHAR(30) CHARACTER SET WIN1252"},
    {"C_OCT", "CHAR(8) CHARACTER SET OCTETS"},
    {"V_OCT", "VARCHAR(16) CHARACTER SET OCTETS"},
    {"N_SMALL", "SMALLINT"},
    {"N_INT", "INTEGER"},
    {"N_BIG", "BIGINT"},
    {"D_4_2", "NUMERIC(4,2)"},
    {"D_9_3", "DECIMAL(9,3)"},
    {"D_18_4", "NUMERIC(18,4)"},
    {"R_FLOAT", "FLOAT"},
    {"R_DOUBLE", "DOUBLE PRECISION"},
    {"T_DATE", "DATE"},
    {"T_TIME", "TIME"},
    {"T_STAMP", "TIMESTAMP"},
    {"FLAG", "BOOLEAN"},
    {"DOC", "BLOB SUB_TYPE TEXT CHARACTER SET UTF8"},
    {"RAW", "BLOB SUB_TYPE BINARY"},
    {"GRID", "INTEGER[4]"},
};

const Column kLineColumns[] = {
    {"ITEM_ID", "BIGINT NOT NULL"},
    {"LINE", "SMALLINT NOT NULL"},
    {"QTY", "NUMERIC(9,2)"},
    {"NOTE", "VARCHAR(40) CHARACTER SET UTF8"},
};

const Column kNoteColumns[] = {
    {"TAG", "VARCHAR(20) CHARACTER SET NONE"},
    {"N", "INTEGER"},
    {"BODY", "BLOB SUB_TYPE TEXT CHARACTER SET UTF8"},
};

template <std::size_t N>
std::vector<std::string> names(const Column (&columns)[N]) {
  std::vector<std::string> out;
  for (const Column& c : columns) out.push_back(c.name);
  return out;
}

std::string join(const std::vector<std::string>& items, const std::string& suffix,
                 const char* separator) {
  std::string out;
  for (std::size_t i = 0; i < items.size(); ++i) out += (i ? separator : "") + items[i] + suffix;
  return out;
}

void appendUtf8(std::string& out, std::uint32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | c >> 6);
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | c >> 12);
    out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | c >> 18);
    out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
    out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

struct Workload::Table {
  const char* name;
  std::vector<std::string> columns;
  std::vector<std::string> key;  // empty: rows are told apart by their values alone
  const char* rangeColumn;       // the column whose value places a row in a thread's range
};

namespace {

const Workload::Table kItems{"ITEMS", names(kItemColumns), {"ID"}, "ID"};
const Workload::Table kLines{"LINES", names(kLineColumns), {"ITEM_ID", "LINE"}, "ITEM_ID"};
// NOTES has no primary key; the workload finds its rows by TAG, which it keeps unique.
const Workload::Table kNotes{"NOTES", names(kNoteColumns), {"TAG"}, "TAG"};

}  // namespace

// Every key of a BIGINT takes the same width, so that a workload's notes form a range of tags.
std::string Workload::noteTag(std::int64_t key) {
  char tag[24];
  std::snprintf(tag, sizeof tag, "N%019lld", static_cast<long long>(key));
  return tag;
}

bool Workload::isConflict(const Firebird::FbException& e) {
  const ISC_STATUS* errors = e.getStatus()->getErrors();
  if (errors[0] != isc_arg_gds) return false;
  return errors[1] == isc_deadlock || errors[1] == isc_update_conflict ||
         errors[1] == isc_lock_conflict;
}

const char* const Workload::kTables[] = {"ITEMS", "LINES", "NOTES", "COUNTERS"};

struct Workload::Prepared {
  std::string sql;
  Firebird::IStatement* statement;
  std::unique_ptr<Message> in;
  std::unique_ptr<Message> out;  // for statements that return rows
};

void Workload::createSchema(Database& db) {
  // Only the tables that are missing: a database made empty beforehand (through a server, where
  // capture cannot tell a new database from an old one) gets the whole schema, one that holds it
  // keeps its rows.
  std::vector<std::string> present;
  for (auto& row :
       db.texts("SELECT CAST(TRIM(RDB$RELATION_NAME) AS VARCHAR(63) CHARACTER SET UTF8) "
                "FROM RDB$RELATIONS WHERE COALESCE(RDB$SYSTEM_FLAG, 0) = 0"))
    present.push_back(row[0]);
  db.commit();
  auto missing = [&present](const char* table) {
    return std::find(present.begin(), present.end(), table) == present.end();
  };
  auto create = [&db, &missing](const char* table, const auto& columns, const char* extra) {
    if (!missing(table)) return;
    std::vector<std::string> defs;
    for (const Column& c : columns) defs.push_back(std::string(c.name) + " " + c.type);
    db.executeAlone(std::string("CREATE TABLE ") + table + " (" + join(defs, "", ", ") + extra +
                    ")");
  };
  create("ITEMS", kItemColumns, "");
  create("LINES", kLineColumns, ", PRIMARY KEY (ITEM_ID, LINE)");
  create("NOTES", kNoteColumns, "");
  if (missing("COUNTERS")) {
    db.executeAlone("CREATE TABLE COUNTERS (ID INTEGER NOT NULL PRIMARY KEY, N BIGINT NOT NULL)");
    // One counter per thread: statements of different threads never touch the same row.
    db.executeAlone(
        "EXECUTE BLOCK AS DECLARE I INTEGER = 0; BEGIN WHILE (I < 64) DO BEGIN "
        "INSERT INTO COUNTERS VALUES (:I, 0); I = I + 1; END END");
  }
  prepareKeys(db);
}

void Workload::prepareKeys(Database& db) {
  const std::string name = kKeySequence;
  if (!db.texts("SELECT CAST(RDB$GENERATOR_NAME AS VARCHAR(63) CHARACTER SET UTF8) FROM "
                "RDB$GENERATORS WHERE RDB$GENERATOR_NAME = '" +
                name + "'")
           .empty())
    return;
  // Above every key and tag in the tables, and never below the first range.
  const auto used = db.texts(
      "SELECT CAST(MAX(K) AS VARCHAR(24) CHARACTER SET UTF8) FROM (SELECT MAX(ID) AS K FROM ITEMS "
      "UNION ALL SELECT MAX(ITEM_ID) FROM LINES UNION ALL SELECT "
      "MAX(CAST(SUBSTRING(TAG FROM 2) AS BIGINT)) FROM NOTES)");
  std::int64_t last = kKeyRange - 1;
  if (!used.empty() && !used[0][0].empty())
    last = std::max<std::int64_t>(last, std::stoll(used[0][0]));
  db.commit();
  db.executeAlone("CREATE SEQUENCE " + name);
  // Sets its value whatever a new sequence starts at.
  db.texts("SELECT CAST(GEN_ID(" + name + ", " + std::to_string(last) + " - GEN_ID(" + name +
           ", 0)) AS VARCHAR(24) CHARACTER SET UTF8) FROM RDB$DATABASE");
  db.commit();
}

std::int64_t Workload::reserveKeys(Database& db, int count) {
  const auto last = db.texts(std::string("SELECT CAST(GEN_ID(") + kKeySequence + ", " +
                             std::to_string(count * kKeyRange) +
                             ") AS VARCHAR(24) CHARACTER SET UTF8) FROM RDB$DATABASE");
  db.commit();
  return static_cast<std::int64_t>(std::stoll(last.at(0).at(0))) - count * kKeyRange + 1;
}

Workload::Workload(Database& db, const Options& options)
    : db_(db),
      options_(options),
      random_(options.seed * 1000003 + static_cast<std::uint64_t>(options.thread)),
      keyBase_(options.keyBase),
      nextKey_(keyBase_) {}

Workload::~Workload() {
  if (ownTransaction_ && transaction_) {
    try {
      rollback();
    } catch (const Firebird::FbException&) {
      // Ending anyway: the attachment's end rolls it back.
    }
  }
  for (auto& entry : statements_) {
    try {
      entry.second->statement->free(db_.status());
    } catch (const Firebird::FbException&) {
      entry.second->statement->release();
    }
  }
}

Workload::Prepared& Workload::statement(const std::string& sql) {
  std::unique_ptr<Prepared>& p = statements_[sql];
  if (!p) {
    p = std::make_unique<Prepared>();
    p->sql = sql;
    p->statement = db_.prepare(sql);
    Firebird::IMessageMetadata* in = p->statement->getInputMetadata(db_.status());
    p->in = std::make_unique<Message>(db_.status(), in);
    in->release();
    Firebird::IMessageMetadata* out = p->statement->getOutputMetadata(db_.status());
    p->out = std::make_unique<Message>(db_.status(), out);
    out->release();
  }
  return *p;
}

void Workload::change(Prepared& p) {
  p.statement->execute(db_.status(), transaction_, p.in->metadata(), p.in->buffer(), nullptr,
                       nullptr);
  // The plugin is told of one row: a statement that changed another would leave the logs short
  // of a change, and the replica silently different.
  const ISC_UINT64 rows = p.statement->getAffectedRecords(db_.status());
  if (rows != 1)
    throw std::runtime_error("the statement " + p.sql + " changed " + std::to_string(rows) +
                             " rows where the plugin is told of one");
}

Firebird::IResultSet* Workload::open(Prepared& p) {
  return p.statement->openCursor(db_.status(), transaction_, p.in->metadata(), p.in->buffer(),
                                 p.out->metadata(), 0);
}

bool Workload::isHot(std::uint64_t index) const {
  if (options_.hotRows <= 0) return false;
  // The first draw of the transaction's own sequence, as run() makes it.
  std::mt19937_64 random(options_.seed * 0x9E3779B97F4A7C15ull + index);
  return random() % 4 == 0;
}

void Workload::begin(bool hot) {
  ownTransaction_ = hot;
  if (!hot) {
    transaction_ = db_.transaction();
    return;
  }
  static const unsigned char tpb[] = {isc_tpb_version3, isc_tpb_write, isc_tpb_read_committed,
                                      isc_tpb_rec_version, isc_tpb_wait};
  transaction_ = db_.attachment()->startTransaction(db_.status(), sizeof tpb, tpb);
}

void Workload::commit() {
  if (ownTransaction_)
    transaction_->commit(db_.status());
  else
    db_.commit();
  transaction_ = nullptr;
}

void Workload::rollback() {
  Firebird::ITransaction* t = transaction_;
  transaction_ = nullptr;
  if (!ownTransaction_)
    db_.rollback();
  else if (t)
    t->rollback(db_.status());
}

std::string Workload::randomText(const Message::Field& f) {
  const unsigned charSet = f.charSet & 0xFF;
  std::string out;
  if (charSet == 4) {  // UTF8: characters of one to four bytes, as many as the column holds
    const std::size_t characters = random_() % (f.length / 4 + 1);
    static const std::uint32_t starts[] = {0x20, 0xA0, 0x400, 0x4E00, 0x1F600};
    for (std::size_t i = 0; i < characters; ++i) {
      const std::uint32_t start = starts[random_() % 5];
      appendUtf8(out, start + static_cast<std::uint32_t>(random_() % 0x50));
    }
    return out;
  }
  const std::size_t n = random_() % (f.length + 1);
  for (std::size_t i = 0; i < n; ++i) {
    auto b = static_cast<unsigned char>(random_());
    if (charSet == 53) {  // WIN1252: only the bytes the set defines
      while (b < 0x20 || b == 0x7F || b == 0x81 || b == 0x8D || b == 0x8F || b == 0x90 || b == 0x9D)
        b = static_cast<unsigned char>(random_());
    }
    out += static_cast<char>(b);
  }
  return out;
}

std::string Workload::randomBlob(bool text) {
  // Mostly small; some cross a block of the log; now and then one of several MiB.
  const unsigned kind = random_() % 1000;
  std::size_t size = random_() % 300;
  if (kind < 60) size = 1000 + random_() % 70000;
  if (kind == 999) size = options_.maxBlob / 2 + random_() % (options_.maxBlob / 2 + 1);
  std::string out;
  out.reserve(size);
  while (out.size() < size) {
    if (!text) {
      out += static_cast<char>(random_());
    } else if (random_() % 8 == 0) {
      appendUtf8(out, 0xA0 + static_cast<std::uint32_t>(random_() % 0x300));
    } else {
      out += static_cast<char>(random_() % 16 == 0 ? '\n' : 'a' + random_() % 26);
    }
  }
  out.resize(size);
  if (text) {
    // A cut in the middle of a character would not be UTF-8.
    while (!out.empty() && (static_cast<unsigned char>(out.back()) & 0x80)) out.pop_back();
  }
  return out;
}

void Workload::fill(Message& m, std::size_t i, const std::string& table,
                    const std::string& column) {
  const Message::Field& f = m.field(i);
  // Without blobs (a largest blob of 0), blob and array columns stay null.
  const bool blobLike = f.type == SQL_BLOB || f.type == SQL_ARRAY;
  if (random_() % 12 == 0 || (blobLike && options_.maxBlob == 0)) {
    m.setNull(i, true);
    return;
  }
  m.setNull(i, false);
  unsigned char* p = m.data(i);
  auto store = [p](auto v) { std::memcpy(p, &v, sizeof v); };
  switch (f.type) {
    case SQL_TEXT:
    case SQL_VARYING:
      m.setText(i, randomText(f));
      break;
    case SQL_SHORT:
      store(static_cast<std::int16_t>(f.scale < 0 ? static_cast<int>(random_() % 19999) - 9999
                                                  : static_cast<std::int16_t>(random_())));
      break;
    case SQL_LONG:
      store(static_cast<std::int32_t>(
          f.scale < 0 ? static_cast<std::int64_t>(random_() % 1999999999) - 999999999
                      : static_cast<std::int32_t>(random_())));
      break;
    case SQL_INT64:
      store(f.scale < 0 ? static_cast<std::int64_t>(random_() % 1999999999999999999ull) -
                              999999999999999999ll
                        : static_cast<std::int64_t>(random_()));
      break;
    case SQL_FLOAT:
      store(static_cast<float>(static_cast<std::int64_t>(random_() % 2000001) - 1000000) / 64.0f);
      break;
    case SQL_DOUBLE:
      store(static_cast<double>(static_cast<std::int64_t>(random_())) / 1e9);
      break;
    case SQL_TYPE_DATE:
      // Day 0 is 1858-11-17; the server's dates run from year 1 to 9999.
      store(static_cast<ISC_DATE>(random_() % 20 == 0 ? -678575 + random_() % 3652059
                                                      : random_() % 100000));
      break;
    case SQL_TYPE_TIME:
      store(static_cast<ISC_TIME>(random_() % 864000000));
      break;
    case SQL_TIMESTAMP: {
      const ISC_TIMESTAMP ts{static_cast<ISC_DATE>(random_() % 100000),
                             static_cast<ISC_TIME>(random_() % 864000000)};
      store(ts);
      break;
    }
    case SQL_BOOLEAN:
      store(static_cast<FB_BOOLEAN>(random_() % 2));
      break;
    case SQL_BLOB:
      store(db_.createBlob(randomBlob(f.subType == 1)));
      break;
    case SQL_ARRAY: {
      std::string elements(db_.arrayBytes(table, column), '\0');
      for (char& c : elements) c = static_cast<char>(random_());
      store(db_.putArray(table, column, elements));
      break;
    }
    default:
      throw std::logic_error("no random values for column " + column);
  }
}

void Workload::bindKey(Message& key, std::size_t count, Message& params, std::size_t first) {
  for (std::size_t k = 0; k < count; ++k) {
    const Message::Field& f = key.field(k);
    const std::size_t bytes = f.type == SQL_VARYING ? f.length + 2 : f.length;
    std::memcpy(params.data(first + k), key.data(k), bytes);
    params.setNull(first + k, false);
  }
}

bool Workload::pickRow(const Table& t, Message*& key) {
  const std::string keys = join(t.key, "", ", ");
  Prepared& p = statement("SELECT FIRST 1 " + keys + " FROM " + t.name + " WHERE " + t.rangeColumn +
                          " >= ? AND " + t.rangeColumn + " < ? ORDER BY " + keys);
  const std::int64_t spread = nextKey_ - keyBase_ + 1;
  const std::int64_t from[] = {keyBase_ + static_cast<std::int64_t>(random_() % spread), keyBase_};
  const std::int64_t end = keyBase_ + kKeyRange;
  for (const std::int64_t start : from) {
    if (t.rangeColumn == std::string("TAG")) {
      p.in->setText(0, noteTag(start));
      p.in->setText(1, noteTag(end));
    } else {
      std::memcpy(p.in->data(0), &start, 8);
      std::memcpy(p.in->data(1), &end, 8);
    }
    Firebird::IResultSet* rows = open(p);
    const bool found =
        rows->fetchNext(db_.status(), p.out->buffer()) == Firebird::IStatus::RESULT_OK;
    rows->close(db_.status());
    if (found) {
      key = p.out.get();
      return true;
    }
  }
  return false;
}

std::unique_ptr<RowImage> Workload::readRow(const Table& t, Message& key) {
  Prepared& p =
      statement(std::string("SELECT * FROM ") + t.name + " WHERE " + join(t.key, " = ?", " AND "));
  bindKey(key, key.count(), *p.in, 0);
  Firebird::IResultSet* rows = open(p);
  const bool found = rows->fetchNext(db_.status(), p.out->buffer()) == Firebird::IStatus::RESULT_OK;
  rows->close(db_.status());
  if (!found) throw std::logic_error(std::string("a row of ") + t.name + " vanished");
  return std::make_unique<ResultSetRow>(t.name, p.out->metadata(), p.out->buffer());
}

void Workload::insertRow(Listener& l, const Table& t, std::int64_t key) {
  Prepared& p = statement(std::string("INSERT INTO ") + t.name + " (" + join(t.columns, "", ", ") +
                          ") VALUES (" +
                          join(std::vector<std::string>(t.columns.size(), "?"), "", ", ") + ")");
  for (std::size_t i = 0; i < t.columns.size(); ++i) fill(*p.in, i, t.name, t.columns[i]);
  // The key columns come first in every table.
  if (&t == &kNotes) {
    p.in->setText(0, noteTag(key));
  } else {
    std::memcpy(p.in->data(0), &key, 8);
    p.in->setNull(0, false);
  }
  if (&t == &kLines) {
    const auto line = static_cast<std::int16_t>(1 + random_() % 5);
    std::memcpy(p.in->data(1), &line, 2);
    p.in->setNull(1, false);
  }
  change(p);
  // The new row, found by the key just inserted: the insert's first parameters are the key.
  Prepared& find = statement("SELECT FIRST 1 " + join(t.key, "", ", ") + " FROM " + t.name +
                             " WHERE " + join(t.key, " = ?", " AND "));
  bindKey(*p.in, t.key.size(), *find.in, 0);
  Firebird::IResultSet* rows = open(find);
  rows->fetchNext(db_.status(), find.out->buffer());
  rows->close(db_.status());
  std::unique_ptr<RowImage> row = readRow(t, *find.out);
  l.inserted(row.get());
}

void Workload::updateRow(Listener& l, const Table& t) {
  Message* key;
  if (!pickRow(t, key)) return insertRow(l, t, nextKey_++);
  std::unique_ptr<RowImage> before = readRow(t, *key);
  // A run of the columns that are not the key; now and then an item's key itself.
  const std::size_t first = t.key.size();
  std::size_t a = first + random_() % (t.columns.size() - first);
  std::size_t b = a + 1 + random_() % (t.columns.size() - a);
  const bool newKey = &t == &kItems && random_() % 10 == 0;
  if (newKey) a = 0, b = 1;
  std::vector<std::string> set(t.columns.begin() + static_cast<std::ptrdiff_t>(a),
                               t.columns.begin() + static_cast<std::ptrdiff_t>(b));
  Prepared& p = statement(std::string("UPDATE ") + t.name + " SET " + join(set, " = ?", ", ") +
                          " WHERE " + join(t.key, " = ?", " AND "));
  for (std::size_t i = 0; i < set.size(); ++i) fill(*p.in, i, t.name, set[i]);
  bindKey(*key, key->count(), *p.in, set.size());
  if (newKey) {
    const std::int64_t id = nextKey_++;
    std::memcpy(p.in->data(0), &id, 8);
    p.in->setNull(0, false);
    std::memcpy(key->data(0), &id, 8);
  }
  change(p);
  std::unique_ptr<RowImage> after = readRow(t, *key);
  l.updated(before.get(), after.get());
}

void Workload::deleteRow(Listener& l, const Table& t) {
  Message* key;
  if (!pickRow(t, key)) return;
  std::unique_ptr<RowImage> before = readRow(t, *key);
  Prepared& p =
      statement(std::string("DELETE FROM ") + t.name + " WHERE " + join(t.key, " = ?", " AND "));
  bindKey(*key, key->count(), *p.in, 0);
  change(p);
  l.deleted(before.get());
}

void Workload::updateHotRows(Listener& l) {
  // One to three of the hot rows, each once, locked in the order of their keys, so that
  // transactions wait for each other but never deadlock.
  std::vector<std::int64_t>& rows = hotChanged_;
  const int count =
      1 + static_cast<int>(random_() % static_cast<unsigned>(std::min(3, options_.hotRows)));
  while (static_cast<int>(rows.size()) < count) {
    const auto id =
        static_cast<std::int64_t>(1 + random_() % static_cast<unsigned>(options_.hotRows));
    if (std::find(rows.begin(), rows.end(), id) == rows.end()) rows.push_back(id);
  }
  std::sort(rows.begin(), rows.end());
  Prepared& lock = statement("SELECT * FROM ITEMS WHERE ID = ? WITH LOCK");
  for (const std::int64_t id : rows) {
    // The old image is the row as locked, once the transaction holding it has ended (read
    // committed: its last committed version): no other transaction can change it before this one
    // ends.
    std::memcpy(lock.in->data(0), &id, 8);
    Firebird::IResultSet* cursor = open(lock);
    const bool found =
        cursor->fetchNext(db_.status(), lock.out->buffer()) == Firebird::IStatus::RESULT_OK;
    cursor->close(db_.status());
    if (!found) throw std::logic_error("hot row " + std::to_string(id) + " is missing");
    ResultSetRow before("ITEMS", lock.out->metadata(), lock.out->buffer());
    // Values set, not added to: applied in another order, the changes leave another row.
    const std::size_t a = kHotFirst + random_() % (kHotEnd - kHotFirst);
    const std::size_t b = a + 1 + random_() % (kHotEnd - a);
    const std::vector<std::string> set(kItems.columns.begin() + static_cast<std::ptrdiff_t>(a),
                                       kItems.columns.begin() + static_cast<std::ptrdiff_t>(b));
    Prepared& p = statement("UPDATE ITEMS SET " + join(set, " = ?", ", ") + " WHERE ID = ?");
    for (std::size_t i = 0; i < set.size(); ++i) fill(*p.in, i, "ITEMS", set[i]);
    std::memcpy(p.in->data(set.size()), &id, 8);
    p.in->setNull(set.size(), false);
    change(p);
    std::unique_ptr<RowImage> after = readRow(kItems, *lock.in);
    l.updated(&before, after.get());
  }
}

unsigned Workload::insertHotRows(Listener& l) {
  random_.seed(options_.seed * 0x9E3779B97F4A7C15ull - 1);
  unsigned inserted = 0;
  Prepared& find = statement("SELECT ID FROM ITEMS WHERE ID = ?");
  for (std::int64_t id = 1; id <= options_.hotRows; ++id) {
    std::memcpy(find.in->data(0), &id, 8);
    Firebird::IResultSet* rows = open(find);
    const bool found =
        rows->fetchNext(db_.status(), find.out->buffer()) == Firebird::IStatus::RESULT_OK;
    rows->close(db_.status());
    if (found) continue;
    insertRow(l, kItems, id);
    ++inserted;
  }
  return inserted;
}

void Workload::counterStatement(Listener& l) {
  const std::string sql = "UPDATE COUNTERS SET N = N + " + std::to_string(1 + random_() % 100) +
                          " WHERE ID = " + std::to_string(options_.thread % 64);
  db_.execute(sql);
  l.statement(sql, static_cast<std::int64_t>(random_() >> 1));
}

bool Workload::run(std::uint64_t index, Listener& l) {
  random_.seed(options_.seed * 0x9E3779B97F4A7C15ull + index);
  hotChanged_.clear();
  // The same draw as isHot's, made only when there are hot rows, so that a workload without them
  // is the same as it always was.
  if (options_.hotRows > 0 && random_() % 4 == 0) {
    updateHotRows(l);
    return true;
  }
  const unsigned size = static_cast<unsigned>(random_() % 100);
  const unsigned operations = size < 70   ? 1 + random_() % 8
                              : size < 95 ? 9 + random_() % 32
                                          : 41 + random_() % 160;
  std::vector<int> savepoints;
  int nextSavepoint = 1;
  for (unsigned op = 0; op < operations; ++op) {
    const unsigned r = static_cast<unsigned>(random_() % 100);
    if (r < 30) {
      insertRow(l, kItems, nextKey_++);
    } else if (r < 50) {
      updateRow(l, kItems);
    } else if (r < 58) {
      deleteRow(l, kItems);
    } else if (r < 64) {
      insertRow(l, kLines, nextKey_++);
    } else if (r < 68) {
      updateRow(l, kLines);
    } else if (r < 71) {
      deleteRow(l, kLines);
    } else if (r < 77) {
      insertRow(l, kNotes, nextKey_++);
    } else if (r < 81) {
      updateRow(l, kNotes);
    } else if (r < 84) {
      deleteRow(l, kNotes);
    } else if (r < 89) {
      counterStatement(l);
    } else if (r < 95 || savepoints.empty()) {
      const int n = nextSavepoint++;
      db_.execute("SAVEPOINT S" + std::to_string(n));
      l.startSavepoint(n);
      savepoints.push_back(n);
    } else {
      // Releasing or rolling back a savepoint ends it and every one started after it.
      const std::size_t at = random_() % savepoints.size();
      const int n = savepoints[at];
      if (r < 97) {
        db_.execute("RELEASE SAVEPOINT S" + std::to_string(n));
        l.releaseSavepoint(n);
      } else {
        db_.execute("ROLLBACK TO SAVEPOINT S" + std::to_string(n));
        db_.execute("RELEASE SAVEPOINT S" + std::to_string(n));
        l.rollbackSavepoint(n);
      }
      savepoints.resize(at);
    }
  }
  return random_() % 10 != 0;
}
