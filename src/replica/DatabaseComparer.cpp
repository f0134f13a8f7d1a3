#include "DatabaseComparer.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "Message.h"

namespace {

// Reads the names in the one text column of a query.
std::vector<std::string> names(Database& db, const std::string& sql) {
  Firebird::IStatement* s = db.prepare(sql);
  Message out(db.status(), s->getOutputMetadata(db.status()));
  out.metadata()->release();
  Firebird::IResultSet* rows =
      s->openCursor(db.status(), db.transaction(), nullptr, nullptr, out.metadata(), 0);
  std::vector<std::string> result;
  while (rows->fetchNext(db.status(), out.buffer()) == Firebird::IStatus::RESULT_OK)
    result.emplace_back(out.text(0));
  rows->close(db.status());
  s->free(db.status());
  return result;
}

std::string literal(const std::string& text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string("''") : std::string(1, c);
  return out + "'";
}

// A cursor over one table in a fixed order.
struct TableCursor {
  TableCursor(Database& database, const std::string& sql) : db(database) {
    statement = db.prepare(sql);
    Firebird::IMessageMetadata* meta = statement->getOutputMetadata(db.status());
    row = std::make_unique<Message>(db.status(), meta);
    meta->release();
    rows =
        statement->openCursor(db.status(), db.transaction(), nullptr, nullptr, row->metadata(), 0);
  }
  ~TableCursor() {
    rows->close(db.status());
    statement->free(db.status());
  }
  bool next() {
    return rows->fetchNext(db.status(), row->buffer()) == Firebird::IStatus::RESULT_OK;
  }
  // The bytes of column i as compared: blob and array contents instead of their ids.
  std::string value(std::size_t i) {
    if (row->isNull(i)) return std::string("\0null", 5);
    const Message::Field& f = row->field(i);
    if (f.type == SQL_BLOB || f.type == SQL_ARRAY) {
      ISC_QUAD id;
      std::memcpy(&id, row->data(i), sizeof id);
      return db.readBlob(id);
    }
    if (f.type == SQL_VARYING) return std::string(row->text(i));
    return std::string(reinterpret_cast<const char*>(row->data(i)), f.length);
  }

  Database& db;
  Firebird::IStatement* statement;
  std::unique_ptr<Message> row;
  Firebird::IResultSet* rows;
};

}  // namespace

DatabaseComparer::Result DatabaseComparer::compare(Database& a, Database& b,
                                                   const std::vector<std::string>& skip) {
  Result result;
  const std::string tablesSql =
      "SELECT CAST(TRIM(RDB$RELATION_NAME) AS VARCHAR(252) CHARACTER SET UTF8) FROM RDB$RELATIONS "
      "WHERE COALESCE(RDB$SYSTEM_FLAG, 0) = 0 AND RDB$VIEW_BLR IS NULL ORDER BY 1";
  std::vector<std::string> tables = names(a, tablesSql);
  const std::vector<std::string> others = names(b, tablesSql);
  tables.erase(std::remove_if(tables.begin(), tables.end(),
                              [&](const std::string& t) {
                                return std::find(skip.begin(), skip.end(), t) != skip.end();
                              }),
               tables.end());
  for (const std::string& t : tables) {
    if (std::find(others.begin(), others.end(), t) == others.end()) {
      result.equal = false;
      result.difference = "table " + t + " is missing from " + b.path();
      return result;
    }
  }
  for (const std::string& t : tables) {
    ++result.tables;
    std::vector<std::string> order =
        names(a,
              "SELECT CAST(TRIM(S.RDB$FIELD_NAME) AS VARCHAR(252) CHARACTER SET UTF8) "
              "FROM RDB$RELATION_CONSTRAINTS C JOIN RDB$INDEX_SEGMENTS S ON S.RDB$INDEX_NAME = "
              "C.RDB$INDEX_NAME WHERE C.RDB$CONSTRAINT_TYPE = 'PRIMARY KEY' AND "
              "C.RDB$RELATION_NAME = " +
                  literal(t) + " ORDER BY S.RDB$FIELD_POSITION");
    if (order.empty()) {
      // Every column but blobs and arrays (field types 261 and, for arrays, any with dimensions).
      order = names(a,
                    "SELECT CAST(TRIM(RF.RDB$FIELD_NAME) AS VARCHAR(252) CHARACTER SET UTF8) "
                    "FROM RDB$RELATION_FIELDS RF JOIN RDB$FIELDS F ON F.RDB$FIELD_NAME = "
                    "RF.RDB$FIELD_SOURCE WHERE RF.RDB$RELATION_NAME = " +
                        literal(t) +
                        " AND F.RDB$FIELD_TYPE <> 261 AND F.RDB$DIMENSIONS IS NULL "
                        "ORDER BY RF.RDB$FIELD_POSITION");
    }
    std::string orderBy;
    for (const std::string& c : order)
      orderBy += (orderBy.empty() ? "" : ", ") + Database::quote(c);
    const std::string sql =
        "SELECT * FROM " + Database::quote(t) + (orderBy.empty() ? "" : " ORDER BY " + orderBy);
    TableCursor x(a, sql);
    TableCursor y(b, sql);
    for (std::uint64_t row = 1;; ++row) {
      const bool more = x.next();
      if (more != y.next()) {
        result.equal = false;
        result.difference = "table " + t + ": " + (more ? b.path() : a.path()) + " has fewer rows";
        return result;
      }
      if (!more) break;
      ++result.rows;
      for (std::size_t i = 0; i < x.row->count(); ++i) {
        if (x.value(i) != y.value(i)) {
          result.equal = false;
          result.difference = "table " + t + ", row " + std::to_string(row) +
                              " in key order: " + "column " + x.row->field(i).name + " differs";
          return result;
        }
      }
    }
  }
  a.commit();
  b.commit();
  return result;
}
