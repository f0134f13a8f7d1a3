#include "DatabaseComparer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <tuple>

#include "Message.h"
#include "RowValue.h"

namespace {

std::string literal(const std::string& text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string("''") : std::string(1, c);
  return out + "'";
}

// A column as the system tables describe it.
struct Column {
  std::string name;
  std::string type;  // RDB$FIELD_TYPE: 14 CHAR, 37 VARCHAR, 40 CSTRING, 261 BLOB
  int length = 0;    // in bytes
  bool array = false;

  bool operator==(const Column& o) const {
    return name == o.name && type == o.type && length == o.length && array == o.array;
  }
};

std::vector<Column> columnsOf(Database& db, const std::string& table) {
  std::vector<Column> columns;
  for (const auto& row :
       db.texts("SELECT CAST(TRIM(RF.RDB$FIELD_NAME) AS VARCHAR(252) CHARACTER SET UTF8), "
                "CAST(F.RDB$FIELD_TYPE AS VARCHAR(8) CHARACTER SET UTF8), "
                "CAST(F.RDB$FIELD_LENGTH AS VARCHAR(8) CHARACTER SET UTF8), "
                "CAST(F.RDB$DIMENSIONS AS VARCHAR(8) CHARACTER SET UTF8) "
                "FROM RDB$RELATION_FIELDS RF JOIN RDB$FIELDS F ON F.RDB$FIELD_NAME = "
                "RF.RDB$FIELD_SOURCE WHERE RF.RDB$RELATION_NAME = " +
                literal(table) + " ORDER BY RF.RDB$FIELD_POSITION"))
    columns.push_back({row[0], row[1], std::atoi(row[2].c_str()), !row[3].empty()});
  return columns;
}

// What a column's rows are ordered by, in a form whose order compareOrder follows: texts by their
// bytes (a collation's order could not be followed here), blobs by a hash of their contents.
// Arrays cannot be ordered by at all.
std::string orderExpression(const Column& c) {
  const std::string q = Database::quote(c.name);
  if (c.type == "14" || c.type == "37" || c.type == "40")
    return "CAST(" + q + " AS VARCHAR(" + std::to_string(std::clamp(c.length, 1, 32765)) +
           ") CHARACTER SET OCTETS)";
  if (c.type == "261") return "HASH(" + q + ")";
  return q;
}

template <typename T>
int order(const unsigned char* x, const unsigned char* y) {
  T a, b;
  std::memcpy(&a, x, sizeof a);
  std::memcpy(&b, y, sizeof b);
  return a < b ? -1 : b < a ? 1 : 0;
}

// The order of field i of two rows, as ORDER BY i NULLS FIRST puts them.
int compareOrder(const Message& x, const Message& y, std::size_t i) {
  const bool nx = x.isNull(i), ny = y.isNull(i);
  if (nx || ny) return nx == ny ? 0 : nx ? -1 : 1;
  const unsigned char* p = x.data(i);
  const unsigned char* q = y.data(i);
  switch (x.field(i).type) {
    case SQL_SHORT:
      return order<std::int16_t>(p, q);
    case SQL_LONG:
    case SQL_TYPE_DATE:
      return order<std::int32_t>(p, q);
    case SQL_INT64:
      return order<std::int64_t>(p, q);
    case SQL_FLOAT:
      return order<float>(p, q);
    case SQL_DOUBLE:
      return order<double>(p, q);
    case SQL_TYPE_TIME:
      return order<std::uint32_t>(p, q);
    case SQL_TIMESTAMP: {
      const int date = order<std::int32_t>(p, q);
      return date ? date : order<std::uint32_t>(p + 4, q + 4);
    }
    case SQL_VARYING:
    case SQL_TEXT: {
      // OCTETS compares as if the shorter were padded with zero bytes.
      const std::string_view a = x.text(i), b = y.text(i);
      const std::size_t n = std::min(a.size(), b.size());
      if (const int c = std::memcmp(a.data(), b.data(), n)) return c < 0 ? -1 : 1;
      const std::string_view rest = a.size() > n ? a.substr(n) : b.substr(n);
      const bool zeros = rest.find_first_not_of('\0') == std::string_view::npos;
      return zeros ? 0 : a.size() > n ? 1 : -1;
    }
    default:
      return order<std::uint8_t>(p, q);
  }
}

// A cursor over one table's columns, followed by what it is ordered by.
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
    more = rows->fetchNext(db.status(), row->buffer()) == Firebird::IStatus::RESULT_OK;
    return more;
  }
  std::string shown(std::size_t i) {
    std::string storage;
    return RowValue::text(RowValue::read(db, *row, i, storage));
  }

  Database& db;
  Firebird::IStatement* statement;
  std::unique_ptr<Message> row;
  Firebird::IResultSet* rows;
  bool more = false;
};

}  // namespace

DatabaseComparer::Result DatabaseComparer::compare(Database& a, Database& b,
                                                   const std::vector<std::string>& skip,
                                                   std::size_t maxDifferences) {
  Result result;
  const auto found = [&](Difference d) {
    result.equal = false;
    if (result.differenceCount++ == 0) result.difference = d.text;
    if (result.differences.size() < maxDifferences) result.differences.push_back(std::move(d));
  };
  const auto tablesOf = [&skip](Database& db) {
    std::vector<std::string> tables;
    for (auto& row : db.texts("SELECT CAST(TRIM(RDB$RELATION_NAME) AS VARCHAR(252) CHARACTER SET "
                              "UTF8) FROM RDB$RELATIONS WHERE COALESCE(RDB$SYSTEM_FLAG, 0) = 0 "
                              "AND RDB$VIEW_BLR IS NULL ORDER BY 1"))
      if (std::find(skip.begin(), skip.end(), row[0]) == skip.end())
        tables.push_back(std::move(row[0]));
    return tables;
  };
  const std::vector<std::string> tables = tablesOf(a);
  const std::vector<std::string> others = tablesOf(b);
  for (const auto& [here, there, where] :
       {std::tie(tables, others, a), std::tie(others, tables, b)}) {
    for (const std::string& t : here)
      if (std::find(there.begin(), there.end(), t) == there.end())
        found({t, "", "", "", "", "table " + t + " is only in " + where.path()});
  }
  const std::map<std::string, std::vector<std::string>> keys = a.primaryKeys();
  for (const std::string& t : tables) {
    if (std::find(others.begin(), others.end(), t) == others.end()) continue;
    ++result.tables;
    const std::vector<Column> columns = columnsOf(a, t);
    if (columns != columnsOf(b, t)) {
      found({t, "", "", "", "",
             "table " + t + ": the columns differ between " + a.path() + " and " + b.path()});
      continue;
    }
    // Rows are told apart by their key's columns, or by all but blobs and arrays; rows alike in
    // those are put in the order of their blobs' hashes, so that rows equal in every column meet.
    const auto key = keys.find(t);
    const bool keyed = key != keys.end() && !key->second.empty();
    std::vector<std::size_t> told, hashed;
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const Column& c = columns[i];
      if (keyed ? std::count(key->second.begin(), key->second.end(), c.name) != 0
                : !c.array && c.type != "261")
        told.push_back(i);
      else if (!keyed && !c.array)
        hashed.push_back(i);
    }
    std::string select, orderBy;
    for (const Column& c : columns)
      select += (select.empty() ? "" : ", ") + Database::quote(c.name);
    std::vector<std::size_t> ordered = told;
    ordered.insert(ordered.end(), hashed.begin(), hashed.end());
    for (std::size_t k = 0; k < ordered.size(); ++k) {
      select += ", " + orderExpression(columns[ordered[k]]);
      orderBy +=
          (k ? ", " : " ORDER BY ") + std::to_string(columns.size() + k + 1) + " NULLS FIRST";
    }
    const std::string sql = "SELECT " + select + " FROM " + Database::quote(t) + orderBy;
    TableCursor x(a, sql);
    TableCursor y(b, sql);
    x.next();
    y.next();
    while (x.more || y.more) {
      int c = !x.more ? 1 : !y.more ? -1 : 0;
      for (std::size_t k = 0; c == 0 && k < told.size(); ++k)
        c = compareOrder(*x.row, *y.row, columns.size() + k);
      TableCursor& side = c <= 0 ? x : y;
      const auto named = [&] {
        std::string out;
        for (const std::size_t i : told)
          out += (out.empty() ? "" : ", ") + columns[i].name + "=" + side.shown(i);
        return out;
      };
      if (c != 0) {
        const std::string row = named();
        found({t, row, "", "", "",
               "table " + t + ", " + row + ": the row is only in " + side.db.path()});
      } else {
        for (std::size_t i = 0; i < columns.size(); ++i) {
          if (RowValue::compared(a, *x.row, i) == RowValue::compared(b, *y.row, i)) continue;
          Difference d{t, named(), columns[i].name, x.shown(i), y.shown(i), ""};
          d.text = "table " + t + ", " + d.key + ": column " + d.column + " is " + d.a + " in " +
                   a.path() + ", " + d.b + " in " + b.path();
          found(std::move(d));
        }
      }
      if (c <= 0) {
        ++result.rows;
        x.next();
      }
      if (c >= 0) y.next();
    }
  }
  a.commit();
  b.commit();
  return result;
}
