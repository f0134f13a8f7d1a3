#include "ReplicaApplier.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "LogDecoder.h"
#include "LogFormatError.h"

namespace {

// A failed statement in Firebird is undone alone; the transaction goes on. These codes say that
// an insert met a row with the same key.
constexpr intptr_t kUniqueKeyViolation = 335544665;  // isc_unique_key_violation
constexpr intptr_t kDuplicateInIndex = 335544349;    // isc_no_dup

// The codes the engine gives when a statement names a column or a table it does not know.
constexpr intptr_t kColumnUnknown = 335544578;  // isc_dsql_field_err
constexpr intptr_t kTableUnknown = 335544580;   // isc_dsql_relation_err

// Whether the failure's status vector carries one of the codes.
bool reports(const Firebird::FbException& e, std::initializer_list<intptr_t> codes) {
  const intptr_t* v = e.getStatus()->getErrors();
  for (; v[0] != isc_arg_end; v += v[0] == isc_arg_cstring ? 3 : 2)
    if (v[0] == isc_arg_gds && std::find(codes.begin(), codes.end(), v[1]) != codes.end())
      return true;
  return false;
}

std::string join(const std::vector<std::string>& items, const char* separator) {
  std::string out;
  for (std::size_t i = 0; i < items.size(); ++i) out += (i ? separator : "") + items[i];
  return out;
}

}  // namespace

// The parameters of one execution, typed after the values of the log; the server converts them to
// the columns' types. Blob and array values are stored first, in the replica's transaction.
struct ReplicaApplier::Binder {
  explicit Binder(Database& database) : db(database) {}
  ~Binder() {
    for (auto& m : metadata) m.second->release();
  }

  struct Param {
    unsigned type = SQL_VARYING;
    unsigned length = 1;
    int scale = 0;
    unsigned charSet = 0;
    bool null = true;
    std::string bytes;
  };

  void clear() { params.clear(); }

  void add(const FieldValue& v, std::string_view table, std::string_view column) {
    using Kind = FieldValue::Kind;
    Param p;
    p.null = v.kind == Kind::kNull;
    auto fixed = [&p](unsigned type, const void* data, std::size_t n) {
      p.type = type;
      p.length = static_cast<unsigned>(n);
      p.bytes.assign(static_cast<const char*>(data), n);
    };
    switch (v.kind) {
      case Kind::kAbsent:
      case Kind::kNull:
        break;
      case Kind::kText: {
        // Lengths in powers of two keep the number of distinct parameter layouts small.
        unsigned length = 32;
        while (length < v.bytes.size()) length *= 2;
        p.length = std::min(length, 65533u);
        p.charSet = v.charSet;
        const auto n = static_cast<std::uint16_t>(v.bytes.size());
        p.bytes.assign(reinterpret_cast<const char*>(&n), 2);
        p.bytes.append(v.bytes);
        break;
      }
      case Kind::kShort: {
        const auto x = static_cast<std::int16_t>(v.integer);
        fixed(SQL_SHORT, &x, 2);
        p.scale = v.scale;
        break;
      }
      case Kind::kLong: {
        const auto x = static_cast<std::int32_t>(v.integer);
        fixed(SQL_LONG, &x, 4);
        p.scale = v.scale;
        break;
      }
      case Kind::kInt64:
        fixed(SQL_INT64, &v.integer, 8);
        p.scale = v.scale;
        break;
      case Kind::kFloat:
      case Kind::kDouble:
        fixed(SQL_DOUBLE, &v.real, 8);
        break;
      case Kind::kDate: {
        const auto x = static_cast<ISC_DATE>(v.integer);
        fixed(SQL_TYPE_DATE, &x, 4);
        break;
      }
      case Kind::kTime: {
        const auto x = static_cast<ISC_TIME>(v.integer);
        fixed(SQL_TYPE_TIME, &x, 4);
        break;
      }
      case Kind::kTimestamp: {
        const ISC_TIMESTAMP x{static_cast<ISC_DATE>(v.integer), static_cast<ISC_TIME>(v.time)};
        fixed(SQL_TIMESTAMP, &x, 8);
        break;
      }
      case Kind::kBoolean: {
        const FB_BOOLEAN x = v.integer != 0;
        fixed(SQL_BOOLEAN, &x, 1);
        break;
      }
      case Kind::kBlob: {
        const ISC_QUAD id = db.createBlob(v.bytes);
        fixed(SQL_BLOB, &id, 8);
        break;
      }
      case Kind::kArray: {
        // The server delivers an array as its description followed by the elements; the
        // elements are stored again through the column's own description.
        const std::string t(table), c(column);
        const std::size_t n = db.arrayBytes(t, c);
        if (v.bytes.size() < n)
          throw ApplyError("the array value of " + c + " holds " + std::to_string(v.bytes.size()) +
                           " bytes, fewer than the column's " + std::to_string(n));
        const ISC_QUAD id = db.putArray(t, c, v.bytes.substr(v.bytes.size() - n));
        fixed(SQL_ARRAY, &id, 8);
        break;
      }
    }
    params.push_back(std::move(p));
  }

  // The message for the parameters, laid out by metadata shared by every execution of the same
  // layout. Blob parameters take the sub type and character set of their columns, so that the
  // server stores the blob as it is.
  Firebird::IMessageMetadata* build(Firebird::IMessageMetadata* columns,
                                    std::vector<unsigned char>& buffer) {
    Firebird::ThrowStatusWrapper* st = db.status();
    std::string signature;
    std::vector<int> subTypes(params.size(), 0);
    std::vector<unsigned> blobCharSets(params.size(), 0);
    for (std::size_t i = 0; i < params.size(); ++i) {
      const Param& p = params[i];
      if (p.type == SQL_BLOB) {
        subTypes[i] = columns->getSubType(st, static_cast<unsigned>(i));
        blobCharSets[i] = columns->getCharSet(st, static_cast<unsigned>(i));
      }
      signature += std::to_string(p.type) + ":" + std::to_string(p.length) + ":" +
                   std::to_string(p.scale) + ":" + std::to_string(p.charSet) + ":" +
                   std::to_string(subTypes[i]) + ":" + std::to_string(blobCharSets[i]) + ";";
    }
    Firebird::IMessageMetadata*& meta = metadata[signature];
    if (!meta) {
      Firebird::IMetadataBuilder* b = Firebird::fb_get_master_interface()->getMetadataBuilder(
          st, static_cast<unsigned>(params.size()));
      for (unsigned i = 0; i < params.size(); ++i) {
        const Param& p = params[i];
        b->setType(st, i, p.type | 1);
        b->setLength(st, i, p.length);
        b->setScale(st, i, p.scale);
        b->setCharSet(st, i, p.type == SQL_BLOB ? blobCharSets[i] : p.charSet);
        b->setSubType(st, i, subTypes[i]);
      }
      meta = b->getMetadata(st);
      b->release();
    }
    buffer.assign(meta->getMessageLength(st), 0);
    for (unsigned i = 0; i < params.size(); ++i) {
      const Param& p = params[i];
      const std::int16_t indicator = p.null ? -1 : 0;
      std::memcpy(buffer.data() + meta->getNullOffset(st, i), &indicator, 2);
      if (!p.null)
        std::memcpy(buffer.data() + meta->getOffset(st, i), p.bytes.data(), p.bytes.size());
    }
    return meta;
  }

  Database& db;
  std::vector<Param> params;
  std::map<std::string, Firebird::IMessageMetadata*> metadata;
};

namespace {

// No primary key: an applier killed while it creates the table can leave the key's index behind
// in the engine's pages, and every later attempt to create the table then fails on it. The table
// holds a single row, made before the first log is applied (see the constructor). The position is
// a blob, since it names every log of one publication time and a copied directory may hold any
// number of those; LOGS_APPLIED counts the logs, so that a position is stored only over the one
// it was read as.
const char kCreatePositionTable[] =
    "CREATE TABLE FBCDC_APPLIED (ID INTEGER NOT NULL, LOGS_APPLIED BIGINT NOT NULL, "
    "LAST_POSITION BLOB SUB_TYPE TEXT CHARACTER SET NONE)";
const char kReadPosition[] =
    "SELECT LOGS_APPLIED, LAST_POSITION FROM FBCDC_APPLIED WHERE ID = 1";
const char kStorePosition[] =
    "UPDATE FBCDC_APPLIED SET LAST_POSITION = ?, LOGS_APPLIED = LOGS_APPLIED + 1 "
    "WHERE ID = 1 AND LOGS_APPLIED = ?";

}  // namespace

ReplicaApplier::ReplicaApplier(Database& replica, Conflicts conflicts)
    : db_(replica), conflicts_(conflicts), binder_(std::make_unique<Binder>(replica)) {
  if (count("SELECT COUNT(*) FROM RDB$RELATIONS WHERE RDB$RELATION_NAME = 'FBCDC_APPLIED'") == 0)
    db_.executeAlone(kCreatePositionTable);
  upgradePositionTable();
  if (!positionTableUsable()) {
    // An applier killed while it created the table can leave it listed with columns the engine
    // does not know. Such a table is empty (a position is stored with the changes of its log,
    // which needs the columns), and is made again; one that holds rows is somebody else's.
    if (count("SELECT COUNT(*) FROM FBCDC_APPLIED") != 0)
      throw ApplyError(
          "the replica's table FBCDC_APPLIED holds rows but not the columns ID, LOGS_APPLIED and "
          "LAST_POSITION in which the applier keeps its position; rename or drop it");
    db_.executeAlone("DROP TABLE FBCDC_APPLIED");
    db_.executeAlone(kCreatePositionTable);
    if (!positionTableUsable())
      throw ApplyError("the replica's FBCDC_APPLIED was made again and still cannot be read");
  }
  // The row is there before any log is applied, so that two appliers that record their first
  // positions at once both update it, and one of them meets the other's change and fails, rather
  // than each inserting a row of its own and both applying the same log.
  if (count("SELECT COUNT(*) FROM FBCDC_APPLIED") == 0)
    db_.executeAlone("INSERT INTO FBCDC_APPLIED (ID, LOGS_APPLIED) VALUES (1, 0)");
}

void ReplicaApplier::upgradePositionTable() {
  // Earlier versions kept the position in LAST_LOGS VARCHAR(32000). Each step can be repeated, so
  // an applier killed between two of them finishes the move the next time.
  const auto has = [this](const char* column) {
    return count(("SELECT COUNT(*) FROM RDB$RELATION_FIELDS WHERE RDB$RELATION_NAME = "
                  "'FBCDC_APPLIED' AND RDB$FIELD_NAME = '" +
                  std::string(column) + "'")
                     .c_str()) != 0;
  };
  if (!has("LAST_LOGS")) return;
  if (!has("LOGS_APPLIED"))
    db_.executeAlone("ALTER TABLE FBCDC_APPLIED ADD LOGS_APPLIED BIGINT DEFAULT 0 NOT NULL");
  if (!has("LAST_POSITION"))
    db_.executeAlone(
        "ALTER TABLE FBCDC_APPLIED ADD LAST_POSITION BLOB SUB_TYPE TEXT CHARACTER SET NONE");
  db_.executeAlone(
      "UPDATE FBCDC_APPLIED SET LAST_POSITION = LAST_LOGS WHERE LAST_POSITION IS NULL");
  db_.executeAlone("ALTER TABLE FBCDC_APPLIED DROP LAST_LOGS");
}

std::int32_t ReplicaApplier::count(const char* sql) {
  Firebird::IStatement* s = db_.prepare(sql);
  Firebird::IMessageMetadata* out = nullptr;
  std::int32_t n = 0;
  try {
    out = s->getOutputMetadata(db_.status());
    std::vector<unsigned char> row(out->getMessageLength(db_.status()));
    s->execute(db_.status(), db_.transaction(), nullptr, nullptr, out, row.data());
    std::memcpy(&n, row.data() + out->getOffset(db_.status(), 0), 4);
  } catch (...) {
    if (out) out->release();
    s->release();
    db_.rollback();
    throw;
  }
  out->release();
  s->free(db_.status());
  db_.commit();
  return n;
}

bool ReplicaApplier::positionTableUsable() {
  bool usable = true;
  try {
    db_.prepare(kReadPosition)->free(db_.status());
  } catch (const Firebird::FbException& e) {
    // Only an engine that does not know the table's columns (or the table) says it is unusable;
    // any other failure is the one to report.
    db_.rollback();
    if (!reports(e, {kColumnUnknown, kTableUnknown})) throw;
    usable = false;
  }
  db_.rollback();
  return usable;
}

ReplicaApplier::~ReplicaApplier() {
  for (auto& s : statements_) {
    try {
      s.second->free(db_.status());
    } catch (const Firebird::FbException&) {
      s.second->release();
    }
  }
}

FollowPosition ReplicaApplier::position() {
  Firebird::IStatement* s = statement(kReadPosition);
  Firebird::IMessageMetadata* out = s->getOutputMetadata(db_.status());
  std::vector<unsigned char> row(out->getMessageLength(db_.status()));
  Firebird::IResultSet* rows =
      s->openCursor(db_.status(), db_.transaction(), nullptr, nullptr, out, 0);
  std::string text;
  applied_ = -1;
  if (rows->fetchNext(db_.status(), row.data()) == Firebird::IStatus::RESULT_OK) {
    std::memcpy(&applied_, row.data() + out->getOffset(db_.status(), 0), 8);
    std::int16_t null;
    std::memcpy(&null, row.data() + out->getNullOffset(db_.status(), 1), 2);
    if (!null) {
      ISC_QUAD id;
      std::memcpy(&id, row.data() + out->getOffset(db_.status(), 1), sizeof id);
      text = db_.readBlob(id);
    }
  }
  rows->close(db_.status());
  out->release();
  db_.commit();
  if (applied_ < 0) throw ApplyError("the replica's FBCDC_APPLIED holds no position row");
  try {
    return FollowPosition::parse(text);
  } catch (const std::runtime_error& e) {
    throw ApplyError(std::string("the replica's FBCDC_APPLIED holds no valid position: ") +
                     e.what());
  }
}

const ReplicaApplier::TableInfo& ReplicaApplier::table(std::string_view name) {
  auto found = tables_.find(name);
  if (found != tables_.end()) return found->second;
  TableInfo info;
  info.primaryKey = db_.primaryKey(name);
  return tables_.emplace(std::string(name), std::move(info)).first->second;
}

Firebird::IStatement* ReplicaApplier::statement(const std::string& sql) {
  auto found = statements_.find(sql);
  if (found != statements_.end()) return found->second;
  // Kept only once prepared: a statement the replica refuses leaves nothing to free.
  Firebird::IStatement* s = db_.prepare(sql);
  statements_.emplace(sql, s);
  return s;
}

std::uint64_t ReplicaApplier::run(const std::string& sql, Binder& binder) {
  Firebird::IStatement* s = statement(sql);
  Firebird::IMessageMetadata* columns = s->getInputMetadata(db_.status());
  std::vector<unsigned char> buffer;
  Firebird::IMessageMetadata* meta = binder.build(columns, buffer);
  columns->release();
  s->execute(db_.status(), db_.transaction(), meta, buffer.data(), nullptr, nullptr);
  return s->getAffectedRecords(db_.status());
}

void ReplicaApplier::conflict(const std::string& what) {
  ++summary_.resolved;
  if (warn_) warn_(where_ + ": " + what);
}

void ReplicaApplier::insert(const ChangeEvent& e) {
  std::vector<std::string> columns, marks;
  binder_->clear();
  for (const FieldChange& f : e.fields) {
    if (!f.after.present()) continue;
    columns.push_back(Database::quote(f.name));
    marks.push_back("?");
    binder_->add(f.after, e.relation, f.name);
  }
  const std::string sql = "INSERT INTO " + Database::quote(e.relation) + " (" +
                          join(columns, ", ") + ") VALUES (" + join(marks, ", ") + ")";
  try {
    run(sql, *binder_);
  } catch (const Firebird::FbException& x) {
    if (conflicts_ != Conflicts::kUpsert || !reports(x, {kUniqueKeyViolation, kDuplicateInIndex}))
      throw;
    // The row is there already: it takes the new values, found by the new key.
    conflict("insert of an existing row, applied as an update");
    change(e.relation, e.fields, false, true);
  }
}

bool ReplicaApplier::change(std::string_view relation, const FieldList& fields, bool remove,
                            bool keyFromNew) {
  const TableInfo& t = table(relation);
  binder_->clear();
  std::vector<std::string> set, where;
  if (!remove) {
    for (const FieldChange& f : fields) {
      if (!f.after.present()) continue;
      set.push_back(Database::quote(f.name) + " = ?");
      binder_->add(f.after, relation, f.name);
    }
  }
  if (!t.primaryKey.empty()) {
    // The key's old value names the row (an update may change the key); the new one where the
    // log carries no old value, or where the row is found by its new key.
    for (const std::string& k : t.primaryKey) {
      const FieldChange* found = nullptr;
      for (const FieldChange& f : fields)
        if (f.name == k) found = &f;
      const FieldValue* v = nullptr;
      if (found) v = found->before.present() && !keyFromNew ? &found->before : &found->after;
      if (!v || !v->present())
        throw ApplyError(where_ + ": the log does not carry the primary key column " + k);
      where.push_back(Database::quote(k) + " = ?");
      binder_->add(*v, relation, k);
    }
  } else {
    // Without a primary key the row is the one that holds every old value the log carries.
    for (const FieldChange& f : fields) {
      if (!f.before.present()) continue;
      where.push_back(Database::quote(f.name) + " IS NOT DISTINCT FROM ?");
      binder_->add(f.before, relation, f.name);
    }
    if (where.empty())
      throw ApplyError(where_ + ": the log carries no old value to find the row by");
  }
  const std::string sql =
      (remove ? "DELETE FROM " + Database::quote(relation)
              : "UPDATE " + Database::quote(relation) + " SET " + join(set, ", ")) +
      " WHERE " + join(where, " AND ");
  if (!remove && set.empty()) return true;
  const std::uint64_t changed = run(sql, *binder_);
  if (changed > 1)
    throw ApplyError(where_ + ": " + std::to_string(changed) +
                     " rows hold the old values of the row, where one must");
  return changed == 1;
}

void ReplicaApplier::applyEvent(const ChangeEvent& e) {
  using Kind = ChangeEvent::Kind;
  switch (e.kind) {
    case Kind::kInsert:
      insert(e);
      ++summary_.rows;
      return;
    case Kind::kUpdate:
      if (!change(e.relation, e.fields, false, false)) {
        if (conflicts_ != Conflicts::kUpsert)
          throw ApplyError(where_ + ": the updated row is missing");
        conflict("update of a missing row, applied as an insert");
        insert(e);
      }
      ++summary_.rows;
      return;
    case Kind::kDelete:
      if (!change(e.relation, e.fields, true, false)) {
        if (conflicts_ == Conflicts::kError)
          throw ApplyError(where_ + ": the deleted row is missing");
        conflict("delete of a missing row, skipped");
      }
      ++summary_.rows;
      return;
    case Kind::kSql:
      db_.execute(std::string(e.sqlText));
      ++summary_.statements;
      return;
    case Kind::kEnd:
      return;
  }
}

void ReplicaApplier::apply(const LogFile& log, const FollowPosition& after) {
  LogDecoder decoder;
  where_ = "log " + log.name;
  try {
    decoder.open(log.path);
    for (;;) {
      const ChangeEvent& e = decoder.next();
      if (e.kind == ChangeEvent::Kind::kEnd) break;
      where_ = "log " + log.name + ", event " + std::to_string(e.index);
      applyEvent(e);
    }
    // The position is stored only over the one this applier read: another applier that took
    // the same logs meanwhile has moved it, and this one's work is undone rather than done twice.
    binder_->clear();
    const std::string serialized = after.serialize();
    FieldValue text, applied;
    text.kind = FieldValue::Kind::kBlob;
    text.bytes = serialized;
    applied.kind = FieldValue::Kind::kInt64;
    applied.integer = applied_;
    binder_->add(text, "", "");
    binder_->add(applied, "", "");
    if (run(kStorePosition, *binder_) != 1)
      throw ApplyError(where_ + ": the replica's position moved since this applier read it; "
                                "another applier is taking the same logs");
    db_.commit();
    ++applied_;
    ++summary_.logs;
  } catch (const Firebird::FbException& e) {
    db_.rollback();
    throw ApplyError(where_ + ": " + Database::describe(e));
  } catch (const LogFormatError& e) {
    db_.rollback();
    throw ApplyError(where_ + ": " + e.what());
  } catch (...) {
    db_.rollback();
    throw;
  }
}
