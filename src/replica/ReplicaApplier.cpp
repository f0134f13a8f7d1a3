#include "ReplicaApplier.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "LogDecoder.h"
#include "LogFormatError.h"
#include "RowValue.h"

namespace {

// A failed statement in Firebird is undone alone; the transaction goes on. These codes say that
// an insert met a row with the same key.
constexpr intptr_t kUniqueKeyViolation = 335544665;  // isc_unique_key_violation
constexpr intptr_t kDuplicateInIndex = 335544349;    // isc_no_dup

// The codes the engine gives when a statement names a column or a table it does not know.
constexpr intptr_t kColumnUnknown = 335544578;  // isc_dsql_field_err
constexpr intptr_t kTableUnknown = 335544580;   // isc_dsql_relation_err

// A singleton subquery met several rows.
constexpr intptr_t kSingletonSelect = 335544652;  // isc_sing_select_err

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

std::string literal(std::string_view text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string("''") : std::string(1, c);
  return out + "'";
}

}  // namespace

// The parameters of one execution, typed after the values of the log; the server converts them to
// the columns' types. Blob and array values are stored first, in the replica's transaction.
struct ReplicaApplier::Binder {
  explicit Binder(Database& database) : db(database) {}
  ~Binder() {
    for (auto& l : layouts) l.second.metadata->release();
  }

  struct Param {
    unsigned type = SQL_VARYING;
    unsigned length = 1;
    int scale = 0;
    unsigned charSet = 0;
    bool null = true;
    std::string bytes;
    int subType = 0;  // blobs: their column's
    unsigned blobCharSet = 0;
  };

  // The parameters are kept between executions, with the room their bytes took.
  void clear() { count = 0; }

  void add(const FieldValue& v, std::string_view table, std::string_view column) {
    using Kind = FieldValue::Kind;
    if (count == params.size()) params.emplace_back();
    Param& p = params[count];
    p.type = SQL_VARYING;
    p.length = 1;
    p.scale = 0;
    p.charSet = 0;
    p.bytes.clear();
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
      case Kind::kFloat: {
        // The writer widened the column's float to a double, exactly: narrowed back, it is the
        // float again.
        const auto x = static_cast<float>(v.real);
        fixed(SQL_FLOAT, &x, 4);
        break;
      }
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
    ++count;
  }

  // An old value to compare with its column as the check does (see Checked).
  void addChecked(const FieldValue& v, Checked::How how, std::string_view table,
                  std::string_view column) {
    if (how == Checked::kAsIs || v.kind != FieldValue::Kind::kText) return add(v, table, column);
    closed.assign(v.bytes);
    closed += '\x01';
    FieldValue text = v;
    if (how == Checked::kOctets) text.charSet = 1;
    text.bytes = closed;
    add(text, table, column);
  }

  // The message for the parameters of a statement, laid out by metadata shared by every execution
  // of the same layout. A null takes the shape that the statement describes for its parameter,
  // and a text the length, so that the layouts of one statement are few. Blob parameters take
  // the sub type and character set of their columns, so that the server stores the blob as it is.
  Firebird::IMessageMetadata* build(const Prepared& statement, std::vector<unsigned char>& buffer) {
    Firebird::ThrowStatusWrapper* st = db.status();
    signature.clear();
    for (std::size_t i = 0; i < count; ++i) {
      Param& p = params[i];
      const Prepared::Param* described =
          i < statement.params.size() ? &statement.params[i] : nullptr;
      if (described) {
        const bool text = described->type == SQL_TEXT || described->type == SQL_VARYING;
        if (p.null) {
          p.type = text ? SQL_VARYING : described->type;
          p.length = described->length;
          p.scale = described->scale;
          p.charSet = described->charSet;
        } else if (text && p.type == SQL_VARYING && p.bytes.size() - 2 <= described->length) {
          p.length = std::max(described->length, 1u);
        }
      }
      p.subType = described && p.type == SQL_BLOB ? described->subType : 0;
      p.blobCharSet = described && p.type == SQL_BLOB ? described->charSet : 0;
      const int shape[] = {static_cast<int>(p.type),
                           static_cast<int>(p.length),
                           p.scale,
                           static_cast<int>(p.charSet),
                           p.subType,
                           static_cast<int>(p.blobCharSet)};
      signature.append(reinterpret_cast<const char*>(shape), sizeof shape);
    }
    Layout& layout = layouts[signature];
    if (!layout.metadata) {
      Firebird::IMetadataBuilder* b =
          Firebird::fb_get_master_interface()->getMetadataBuilder(st, static_cast<unsigned>(count));
      for (unsigned i = 0; i < count; ++i) {
        const Param& p = params[i];
        b->setType(st, i, p.type | 1);
        b->setLength(st, i, p.length);
        b->setScale(st, i, p.scale);
        b->setCharSet(st, i, p.type == SQL_BLOB ? p.blobCharSet : p.charSet);
        b->setSubType(st, i, p.subType);
      }
      layout.metadata = b->getMetadata(st);
      b->release();
      layout.length = layout.metadata->getMessageLength(st);
      for (unsigned i = 0; i < count; ++i) {
        layout.offsets.push_back(layout.metadata->getOffset(st, i));
        layout.nullOffsets.push_back(layout.metadata->getNullOffset(st, i));
      }
    }
    if (buffer.size() < layout.length) buffer.resize(layout.length);
    for (unsigned i = 0; i < count; ++i) {
      const Param& p = params[i];
      const std::int16_t indicator = p.null ? -1 : 0;
      std::memcpy(buffer.data() + layout.nullOffsets[i], &indicator, 2);
      if (!p.null) std::memcpy(buffer.data() + layout.offsets[i], p.bytes.data(), p.bytes.size());
    }
    return layout.metadata;
  }

  struct Layout {
    Firebird::IMessageMetadata* metadata = nullptr;
    unsigned length = 0;
    std::vector<unsigned> offsets, nullOffsets;
  };

  Database& db;
  std::vector<Param> params;
  std::size_t count = 0;  // params in use
  std::string signature;
  std::string closed;  // a text with its closing byte
  std::map<std::string, Layout> layouts;
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
const char kReadPosition[] = "SELECT LOGS_APPLIED, LAST_POSITION FROM FBCDC_APPLIED WHERE ID = 1";
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
      s.second.statement->free(db_.status());
    } catch (const Firebird::FbException&) {
      s.second.statement->release();
    }
  }
}

FollowPosition ReplicaApplier::position() {
  std::string text = storedPosition();
  if (text.find('\t') != std::string::npos) {
    if (prefix_.empty() || text.compare(0, prefix_.size(), prefix_) != 0)
      throw ApplyError(
          "the replica's FBCDC_APPLIED holds the progress of a snapshot being applied (\"" +
          text.substr(0, text.find('\t')) +
          "\"): apply it with the same --snapshot until it is in, and after");
    text.erase(0, prefix_.size());
  }
  try {
    return FollowPosition::parse(text);
  } catch (const std::runtime_error& e) {
    throw ApplyError(std::string("the replica's FBCDC_APPLIED holds no valid position: ") +
                     e.what());
  }
}

std::string ReplicaApplier::storedPosition() {
  Firebird::IStatement* s = statement(kReadPosition).statement;
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
  return text;
}

const ReplicaApplier::TableInfo& ReplicaApplier::table(std::string_view name) {
  auto found = tables_.find(name);
  if (found != tables_.end()) return found->second;
  TableInfo info;
  info.primaryKey = db_.primaryKey(name);
  // How the check compares each column, by its type (not by the log's value, so that a null does
  // not make a statement of its own). A text of its character set's own collation, which tells
  // bytes apart, as it is; but a VARCHAR with a closing byte, since the pad that makes 'a' equal
  // 'a ' would hide a trailing blank (or a trailing zero byte, OCTETS's pad). A CHAR as it is,
  // since the log drops its pad too. A text of another collation (one that ignores case or
  // accents, say) by its bytes, cast to OCTETS and closed; a CHAR loses its trailing blanks first.
  // Every other value compares as the server holds it, exactly: a FLOAT with the log's float,
  // scaled numbers, dates and times as the integers they are.
  for (const auto& row :
       db_.texts("SELECT CAST(TRIM(RF.RDB$FIELD_NAME) AS VARCHAR(252) CHARACTER SET UTF8), "
                 "CAST(F.RDB$FIELD_TYPE AS VARCHAR(8) CHARACTER SET UTF8), "
                 "CAST(F.RDB$FIELD_LENGTH AS VARCHAR(8) CHARACTER SET UTF8), "
                 "CAST(COALESCE(RF.RDB$COLLATION_ID, F.RDB$COLLATION_ID, 0) AS VARCHAR(8) "
                 "CHARACTER SET UTF8) FROM RDB$RELATION_FIELDS RF JOIN RDB$FIELDS F ON "
                 "F.RDB$FIELD_NAME = RF.RDB$FIELD_SOURCE WHERE RF.RDB$RELATION_NAME = " +
                 literal(name))) {
    const std::string column = Database::quote(row[0]);
    const bool fixed = row[1] == "14", text = fixed || row[1] == "37" || row[1] == "40";
    Checked& c = info.columns[row[0]];
    c.how = !text           ? Checked::kAsIs
            : row[3] != "0" ? Checked::kOctets
            : fixed         ? Checked::kAsIs
                            : Checked::kClosed;
    c.expression = c.how == Checked::kAsIs ? column
                   : c.how == Checked::kClosed
                       ? column + " || X'01'"
                       : "CAST(" + (fixed ? "TRIM(TRAILING FROM " + column + ")" : column) +
                             " AS VARCHAR(" +
                             std::to_string(std::clamp(std::atoi(row[2].c_str()), 1, 32765)) +
                             ") CHARACTER SET OCTETS) || X'01'";
  }
  return tables_.emplace(std::string(name), std::move(info)).first->second;
}

ReplicaApplier::Prepared& ReplicaApplier::statement(const std::string& sql) {
  auto found = statements_.find(sql);
  if (found != statements_.end()) return found->second;
  // Kept only once prepared: a statement the replica refuses leaves nothing to free.
  Prepared p;
  p.statement = db_.prepare(sql);
  Firebird::ThrowStatusWrapper* st = db_.status();
  Firebird::IMessageMetadata* in = nullptr;
  try {
    in = p.statement->getInputMetadata(st);
    for (unsigned i = 0, n = in->getCount(st); i < n; ++i)
      p.params.push_back({in->getType(st, i) & ~1u, in->getLength(st, i), in->getScale(st, i),
                          in->getCharSet(st, i), in->getSubType(st, i)});
  } catch (...) {
    if (in) in->release();
    p.statement->release();
    throw;
  }
  in->release();
  return statements_.emplace(sql, std::move(p)).first->second;
}

std::uint64_t ReplicaApplier::run(const std::string& sql, Binder& binder) {
  return run(statement(sql), binder);
}

std::uint64_t ReplicaApplier::run(const Prepared& p, Binder& binder) {
  Firebird::IMessageMetadata* meta = binder.build(p, buffer_);
  p.statement->execute(db_.status(), db_.transaction(), meta, buffer_.data(), nullptr, nullptr);
  return p.statement->getAffectedRecords(db_.status());
}

void ReplicaApplier::query(const std::string& sql, const std::function<bool(const Message&)>& fn) {
  const Prepared& p = statement(sql);
  Firebird::IStatement* s = p.statement;
  Firebird::IMessageMetadata* meta = binder_->build(p, buffer_);
  Firebird::IMessageMetadata* out = s->getOutputMetadata(db_.status());
  Message row(db_.status(), out);
  out->release();
  Firebird::IResultSet* rows =
      s->openCursor(db_.status(), db_.transaction(), meta, buffer_.data(), row.metadata(), 0);
  try {
    while (rows->fetchNext(db_.status(), row.buffer()) == Firebird::IStatus::RESULT_OK)
      if (!fn(row)) break;
  } catch (...) {
    rows->release();
    throw;
  }
  rows->close(db_.status());
}

void ReplicaApplier::conflict(const std::string& what) {
  ++summary_.resolved;
  if (warn_) warn_(where_ + ": " + what);
}

void ReplicaApplier::insert(const ChangeEvent& e) {
  // As for a change: the statement is found by the table and the columns the log carries, and
  // its SQL is made only the first time.
  shape_.assign(1, 'I');
  shape_.append(e.relation).push_back('\0');
  for (const FieldChange& f : e.fields) {
    if (!f.after.present()) continue;
    shape_.append(f.name).push_back('\1');
  }
  Prepared*& prepared = shapes_[shape_];
  std::vector<std::string> columns, marks;
  binder_->clear();
  for (const FieldChange& f : e.fields) {
    if (!f.after.present()) continue;
    if (!prepared) {
      columns.push_back(Database::quote(f.name));
      marks.push_back("?");
    }
    binder_->add(f.after, e.relation, f.name);
  }
  if (!prepared)
    prepared = &statement("INSERT INTO " + Database::quote(e.relation) + " (" +
                          join(columns, ", ") + ") VALUES (" + join(marks, ", ") + ")");
  try {
    run(*prepared, *binder_);
  } catch (const Firebird::FbException& x) {
    if (conflicts_ != Conflicts::kUpsert || !reports(x, {kUniqueKeyViolation, kDuplicateInIndex}))
      throw;
    // The row is there already: it takes the new values, found by the new key.
    conflict("insert of an existing row, applied as an update");
    change(e.relation, e.fields, false, Find::kNewKey);
  }
}

std::size_t ReplicaApplier::setTerms(std::string_view relation, const FieldList& fields,
                                     std::vector<std::string>* out) {
  std::size_t n = 0;
  for (const FieldChange& f : fields) {
    if (!f.after.present()) continue;
    if (out) out->push_back(Database::quote(f.name) + " = ?");
    binder_->add(f.after, relation, f.name);
    ++n;
  }
  return n;
}

std::size_t ReplicaApplier::keyTerms(const TableInfo& t, std::string_view relation,
                                     const FieldList& fields, Find find,
                                     std::vector<std::string>* out) {
  // The key's old value names the row (an update may change the key); the new one where the log
  // carries no old value, or where the row is found by its new key.
  for (const std::string& k : t.primaryKey) {
    const FieldChange* found = nullptr;
    for (const FieldChange& f : fields)
      if (f.name == k) found = &f;
    const FieldValue* v = nullptr;
    if (found)
      v = found->before.present() && find != Find::kNewKey ? &found->before : &found->after;
    if (!v || !v->present())
      throw ApplyError(where_ + ": the log does not carry the primary key column " + k);
    if (out) out->push_back(Database::quote(k) + " = ?");
    binder_->add(*v, relation, k);
  }
  return t.primaryKey.size();
}

std::size_t ReplicaApplier::checkTerms(const TableInfo& t, std::string_view relation,
                                       const FieldList& fields, std::vector<std::string>* out,
                                       std::vector<const FieldChange*>* compared) {
  std::size_t n = 0;
  for (const FieldChange& f : fields) {
    if (!f.before.present() || f.before.isBlobLike()) continue;
    const auto found = t.columns.find(f.name);
    const bool known = found != t.columns.end();
    const Checked::How how = known ? found->second.how : Checked::kAsIs;
    // A key column's "=" is as exact as the check, unless a collation or a pad may call its text
    // equal to another.
    if (how == Checked::kAsIs &&
        std::find(t.primaryKey.begin(), t.primaryKey.end(), f.name) != t.primaryKey.end())
      continue;
    if (out)
      out->push_back((known ? found->second.expression : Database::quote(f.name)) +
                     " IS NOT DISTINCT FROM ?");
    binder_->addChecked(f.before, how, relation, f.name);
    if (compared) compared->push_back(&f);
    ++n;
  }
  return n;
}

std::string ReplicaApplier::keyText(const TableInfo& t, const FieldList& fields) {
  std::string out;
  for (const std::string& k : t.primaryKey) {
    for (const FieldChange& f : fields) {
      if (f.name != k) continue;
      out += (out.empty() ? "" : ", ") + k + "=" +
             RowValue::text(f.before.present() ? f.before : f.after);
    }
  }
  return out;
}

ReplicaApplier::Outcome ReplicaApplier::change(std::string_view relation, const FieldList& fields,
                                               bool remove, Find find) {
  const TableInfo& t = table(relation);
  const bool keyed = !t.primaryKey.empty();
  const bool checked = find == Find::kOldValues && (check_ || !keyed);
  // The statement follows from the table, the way the row is found and which values the log
  // carries: a statement prepared before is found by that shape, and its SQL is made only once.
  shape_.assign(1, remove ? 'D' : 'U');
  shape_ += static_cast<char>('0' + static_cast<int>(find));
  shape_ += checked ? 'c' : '-';
  shape_.append(relation).push_back('\0');
  for (const FieldChange& f : fields) {
    shape_.append(f.name);
    shape_ += static_cast<char>(1 | (f.after.present() ? 2 : 0) | (f.before.present() ? 4 : 0) |
                                (f.before.isBlobLike() ? 8 : 0));
  }
  Prepared*& prepared = shapes_[shape_];
  std::vector<std::string> set, where;
  binder_->clear();
  if (!remove && setTerms(relation, fields, prepared ? nullptr : &set) == 0)
    return Outcome::kChanged;
  std::size_t terms = 0;
  if (keyed) {
    terms += keyTerms(t, relation, fields, find, prepared ? nullptr : &where);
    if (checked) terms += checkTerms(t, relation, fields, prepared ? nullptr : &where, nullptr);
  } else {
    terms += checkTerms(t, relation, fields, prepared ? nullptr : &where, nullptr);
  }
  if (terms == 0) throw ApplyError(where_ + ": the log carries no old value to find the row by");
  if (!prepared) {
    const std::string head =
        remove ? "DELETE FROM " + Database::quote(relation)
               : "UPDATE " + Database::quote(relation) + " SET " + join(set, ", ");
    // Without a primary key the row is the one that holds every old value the log carries. The
    // singleton subquery fails the statement (which the server then undoes alone) where several
    // rows do.
    prepared =
        &statement(keyed ? head + " WHERE " + join(where, " AND ")
                         : head + " WHERE RDB$DB_KEY = (SELECT RDB$DB_KEY FROM " +
                               Database::quote(relation) + " WHERE " + join(where, " AND ") + ")");
  }
  std::uint64_t changed = 0;
  try {
    changed = run(*prepared, *binder_);
  } catch (const Firebird::FbException& x) {
    if (keyed || !reports(x, {kSingletonSelect})) throw;
    changeOneOf(t, relation, fields, remove);
    return Outcome::kChanged;
  }
  if (changed > 1)
    throw ApplyError(where_ + ": " + std::to_string(changed) + " rows of " + std::string(relation) +
                     " changed where one must");
  if (changed == 1) return Outcome::kChanged;
  return keyed && checked && findDifference(t, relation, fields) ? Outcome::kDiffers
                                                                 : Outcome::kMissing;
}

bool ReplicaApplier::findDifference(const TableInfo& t, std::string_view relation,
                                    const FieldList& fields) {
  // One query of the row by its key: for each old value, whether it matches, then the column.
  binder_->clear();
  std::vector<std::string> checks, key;
  std::vector<const FieldChange*> compared;
  checkTerms(t, relation, fields, &checks, &compared);
  keyTerms(t, relation, fields, Find::kOldKey, &key);
  std::vector<std::string> items;
  for (const std::string& c : checks) items.push_back("(" + c + ")");
  for (const FieldChange* f : compared) items.push_back(Database::quote(f->name));
  if (items.empty()) items.push_back("1");
  const std::string sql = "SELECT " + join(items, ", ") + " FROM " + Database::quote(relation) +
                          " WHERE " + join(key, " AND ");
  bool found = false;
  query(sql, [&](const Message& row) {
    found = true;
    differs_ = "table " + std::string(relation) + ", key " + keyText(t, fields) + ": ";
    for (std::size_t i = 0; i < compared.size(); ++i) {
      if (*row.data(i)) continue;  // the column matches
      std::string storage;
      const FieldValue replica = RowValue::read(db_, row, compared.size() + i, storage);
      differs_ += "column " + std::string(compared[i]->name) + " is " + RowValue::text(replica) +
                  " in the replica, " + RowValue::text(compared[i]->before) + " in the log";
      return false;
    }
    differs_ += "the row holds the log's old values, yet the change did not find it";
    return false;
  });
  return found;
}

void ReplicaApplier::changeOneOf(const TableInfo& t, std::string_view relation,
                                 const FieldList& fields, bool remove) {
  binder_->clear();
  std::vector<std::string> where;
  checkTerms(t, relation, fields, &where, nullptr);
  const std::string table = Database::quote(relation);
  std::vector<std::string> first;
  std::vector<std::string> differing;
  std::uint64_t candidates = 0;
  query("SELECT * FROM " + table + " WHERE " + join(where, " AND "), [&](const Message& row) {
    ++candidates;
    for (std::size_t i = 0; i < row.count(); ++i) {
      std::string value = RowValue::compared(db_, row, i);
      if (first.size() <= i) {
        first.push_back(std::move(value));
      } else if (value != first[i] && std::find(differing.begin(), differing.end(),
                                                row.field(i).name) == differing.end()) {
        differing.push_back(row.field(i).name);
      }
    }
    return true;
  });
  if (!differing.empty())
    throw ApplyError(where_ + ": " + std::to_string(candidates) + " rows of " +
                     std::string(relation) + " hold the old values the log carries and differ in " +
                     join(differing, ", ") +
                     ", which it does not carry: which of them the source changed cannot be told");
  // Identical rows are interchangeable: any one of them takes the change.
  binder_->clear();
  std::vector<std::string> set;
  where.clear();
  if (!remove) setTerms(relation, fields, &set);
  checkTerms(t, relation, fields, &where, nullptr);
  const std::string sql =
      (remove ? "DELETE FROM " + table : "UPDATE " + table + " SET " + join(set, ", ")) +
      " WHERE " + join(where, " AND ") + " ROWS 1";
  if (run(sql, *binder_) != 1)
    throw ApplyError(where_ + ": none of the identical rows of " + std::string(relation) +
                     " could be changed");
  ++summary_.interchangeable;
}

void ReplicaApplier::applyEvent(const ChangeEvent& e) {
  using Kind = ChangeEvent::Kind;
  switch (e.kind) {
    case Kind::kInsert:
      insert(e);
      ++summary_.rows;
      return;
    case Kind::kUpdate:
    case Kind::kDelete: {
      const bool remove = e.kind == Kind::kDelete;
      switch (change(e.relation, e.fields, remove, Find::kOldValues)) {
        case Outcome::kChanged:
          break;
        case Outcome::kDiffers:
          if (conflicts_ == Conflicts::kError) throw ApplyError(where_ + ": " + differs_);
          ++summary_.differed;
          if (conflicts_ == Conflicts::kSkip) {
            conflict(differs_ + "; the row left as it is");
          } else {
            conflict(differs_ + (remove ? "; the row deleted" : "; the log's new values applied"));
            change(e.relation, e.fields, remove, Find::kOldKey);
          }
          break;
        case Outcome::kMissing:
          if (!remove) {
            if (conflicts_ != Conflicts::kUpsert)
              throw ApplyError(where_ + ": the updated row is missing");
            conflict("update of a missing row, applied as an insert");
            insert(e);
          } else {
            if (conflicts_ == Conflicts::kError)
              throw ApplyError(where_ + ": the deleted row is missing");
            conflict("delete of a missing row, skipped");
          }
          break;
      }
      ++summary_.rows;
      return;
    }
    case Kind::kSql:
      db_.execute(std::string(e.sqlText));
      ++summary_.statements;
      return;
    case Kind::kEnd:
      return;
  }
}

namespace {

// A statement met in a log that would go ahead of one published before it.
struct NotAhead {};

// How many logs the search for an order may try, each a trial in a savepoint.
constexpr int kOrderTrials = 64;

}  // namespace

void ReplicaApplier::applyEvents(const LogFile& log, bool ahead) {
  LogDecoder decoder;
  where_ = "log " + log.name;
  decoder.open(log.path);
  for (;;) {
    const ChangeEvent& e = decoder.next();
    if (e.kind == ChangeEvent::Kind::kEnd) break;
    where_ = "log " + log.name + ", event " + std::to_string(e.index);
    if (skip_ && skip_(log, e)) continue;
    if (ahead && e.kind == ChangeEvent::Kind::kSql) throw NotAhead();
    applyEvent(e);
  }
}

void ReplicaApplier::storeAndCommit(const FollowPosition& after, std::size_t logs) {
  storeAndCommit(prefix_ + after.serialize(), logs);
}

void ReplicaApplier::storeAndCommit(const std::string& serialized, std::size_t logs) {
  // The position is stored only over the one this applier read: another applier that took the
  // same logs meanwhile has moved it, and this one's work is undone rather than done twice.
  binder_->clear();
  FieldValue text, applied;
  text.kind = FieldValue::Kind::kBlob;
  text.bytes = serialized;
  applied.kind = FieldValue::Kind::kInt64;
  applied.integer = applied_;
  binder_->add(text, "", "");
  binder_->add(applied, "", "");
  if (run(kStorePosition, *binder_) != 1)
    throw ApplyError(where_ +
                     ": the replica's position moved since this applier read it; "
                     "another applier is taking the same logs");
  db_.commit();
  ++applied_;
  summary_.logs += logs;
}

void ReplicaApplier::inTransaction(const std::function<void()>& work) {
  try {
    work();
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

void ReplicaApplier::apply(const LogFile& log, const FollowPosition& after) {
  inTransaction([&] {
    applyEvents(log, false);
    storeAndCommit(after, 1);
  });
}

void ReplicaApplier::applyWithPosition(const LogFile& log, const std::string& stored) {
  inTransaction([&] {
    applyEvents(log, false);
    storeAndCommit(stored, 1);
  });
}

bool ReplicaApplier::applyCleanly(const LogFile& log, bool ahead) {
  const Summary before = summary_;
  const Conflicts conflicts = conflicts_;
  conflicts_ = Conflicts::kError;
  try {
    applyEvents(log, ahead);
    conflicts_ = conflicts;
    return true;
  } catch (const ApplyError&) {
  } catch (const Firebird::FbException&) {
  } catch (const NotAhead&) {
  } catch (...) {
    conflicts_ = conflicts;
    throw;
  }
  conflicts_ = conflicts;
  summary_ = before;
  return false;
}

bool ReplicaApplier::settle(const std::vector<LogFile>& logs, std::size_t first,
                            std::vector<char>& taken, int depth, int& budget) {
  std::size_t next = 0;
  while (next < taken.size() && taken[next]) ++next;
  if (next > 0 && std::find(taken.begin() + next, taken.end(), 1) == taken.end()) return true;
  // Each trial runs in a savepoint of its depth, so that a trial that fails, or an order that
  // leads nowhere, is undone alone.
  const std::string savepoint = "FBCDC_ORDER_" + std::to_string(depth);
  // The first log has failed as published already: the search begins with the others.
  for (std::size_t c = next + (depth == 0 ? 1 : 0); c < taken.size(); ++c) {
    const LogFile& log = logs[first + c];
    const bool ahead = c != next;
    if (ahead && (log.fromName || log.publishedAt - logs[first + next].publishedAt > kOrderWindow))
      break;
    if (taken[c]) continue;
    if (budget-- <= 0) return false;
    const Summary before = summary_;
    db_.execute("SAVEPOINT " + savepoint);
    if (applyCleanly(log, ahead)) {
      taken[c] = 1;
      if (settle(logs, first, taken, depth + 1, budget)) {
        if (ahead) ++summary_.reordered;
        return true;
      }
      taken[c] = 0;
    }
    db_.execute("ROLLBACK TO SAVEPOINT " + savepoint);
    summary_ = before;
  }
  return false;
}

std::size_t ReplicaApplier::applyNext(std::vector<LogFile>& logs, std::size_t first,
                                      FollowPosition& position,
                                      const std::function<void(std::vector<LogFile>&)>& more) {
  FollowPosition after = position;
  after.advance(logs[first]);
  // As published, first: nearly every log applies so, and costs no savepoint.
  bool clean = false;
  inTransaction([&] {
    clean = applyCleanly(logs[first], false);
    if (clean) storeAndCommit(after, 1);
  });
  if (clean) {
    position = after;
    return 1;
  }
  db_.rollback();
  if (more) more(logs);
  const Summary before = summary_;
  std::size_t count = 0;
  std::size_t window = 1;
  while (first + window < logs.size() && !logs[first + window].fromName &&
         logs[first + window].publishedAt - logs[first].publishedAt <= kOrderWindow)
    ++window;
  if (window > 1) {
    inTransaction([&] {
      std::vector<char> taken(window);
      int budget = kOrderTrials;
      if (!settle(logs, first, taken, 0, budget)) {
        db_.rollback();
        summary_ = before;
        return;
      }
      FollowPosition end = position;
      while (count < taken.size() && taken[count]) end.advance(logs[first + count++]);
      storeAndCommit(end, count);
      after = end;
    });
  }
  if (count > 0) {
    position = after;
    return count;
  }
  // No order applies cleanly: the log alone, as the conflicts are to be handled.
  try {
    apply(logs[first], after);
  } catch (const ApplyError& e) {
    if (window == 1) throw;
    throw ApplyError(std::string(e.what()) + " (nor does it apply in another order with the " +
                     std::to_string(window - 1) + " logs published within " +
                     std::to_string(kOrderWindow / 1000000) + " ms after it)");
  }
  position = after;
  return 1;
}
