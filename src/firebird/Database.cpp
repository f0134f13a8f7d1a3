#include "Database.h"

#include <sys/stat.h>

#include <cstring>
#include <stdexcept>
#include <vector>

namespace {

// Legacy array calls throw like the rest.
void checkLegacy(const ISC_STATUS* vector, const char* what) {
  if (vector[0] == 1 && vector[1] != 0) {
    char text[1024];
    const ISC_STATUS* p = vector;
    std::string message = what;
    while (fb_interpret(text, sizeof text, &p)) message += std::string(": ") + text;
    throw std::runtime_error(message);
  }
}

}  // namespace

Database::Database(const std::string& path, const Credentials& credentials, bool create,
                   bool* created)
    : path_(path),
      master_(Firebird::fb_get_master_interface()),
      rawStatus_(master_->getStatus()),
      status_(rawStatus_) {
  Firebird::IUtil* util = master_->getUtilInterface();
  Firebird::IXpbBuilder* dpb = nullptr;
  try {
    dpb = util->getXpbBuilder(&status_, Firebird::IXpbBuilder::DPB, nullptr, 0);
    credentials.addTo(dpb, &status_);
    Firebird::IProvider* provider = master_->getDispatcher();
    struct stat st;
    const bool local = path.find(':') == std::string::npos;
    const bool exists = !local || ::stat(path.c_str(), &st) == 0;
    bool made = create && !exists;
    if (!made) {
      try {
        attachment_ = provider->attachDatabase(
            &status_, path.c_str(), dpb->getBufferLength(&status_), dpb->getBuffer(&status_));
      } catch (const Firebird::FbException& e) {
        // Through a server a missing database shows only as the failed open of its file.
        const ISC_STATUS* v = e.getStatus()->getErrors();
        if (!create || local || v[0] != isc_arg_gds || v[1] != isc_io_error) {
          provider->release();
          throw;
        }
        made = true;
      }
    }
    if (made) {
      dpb->insertInt(&status_, isc_dpb_page_size, 8192);
      dpb->insertInt(&status_, isc_dpb_sql_dialect, 3);
      attachment_ = provider->createDatabase(&status_, path.c_str(), dpb->getBufferLength(&status_),
                                             dpb->getBuffer(&status_));
    }
    provider->release();
    if (created) *created = made;
    dpb->dispose();
  } catch (const Firebird::FbException& e) {
    if (dpb) dpb->dispose();
    const std::string text = describe(e);
    rawStatus_->dispose();
    throw std::runtime_error("cannot open database " + path + ": " + oneLine(text));
  }
}

Database::~Database() {
  try {
    if (transaction_) transaction_->rollback(&status_);
  } catch (const Firebird::FbException&) {
    transaction_->release();
  }
  try {
    if (attachment_) attachment_->detach(&status_);
  } catch (const Firebird::FbException&) {
    attachment_->release();
  }
  rawStatus_->dispose();
}

void Database::rollbackQuietly(Firebird::ITransaction* t) {
  Firebird::IStatus* status = Firebird::fb_get_master_interface()->getStatus();
  Firebird::CheckStatusWrapper quiet(status);
  t->rollback(&quiet);
  status->dispose();
}

std::string Database::describe(const Firebird::FbException& e) {
  char text[2048];
  Firebird::fb_get_master_interface()->getUtilInterface()->formatStatus(text, sizeof text,
                                                                        e.getStatus());
  return text;
}

std::string Database::oneLine(const std::string& text) {
  std::string line;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\n') {
      line += text[i];
    } else if (i + 1 < text.size()) {
      line += ": ";
      if (text[i + 1] == '-') ++i;
    }
  }
  return line;
}

std::string Database::quote(std::string_view name) {
  std::string q = "\"";
  for (const char c : name) {
    if (c == '"') q += '"';
    q += c;
  }
  return q + "\"";
}

Firebird::ITransaction* Database::transaction() {
  if (!transaction_) transaction_ = attachment_->startTransaction(&status_, 0, nullptr);
  return transaction_;
}

void Database::commit() {
  if (!transaction_) return;
  transaction_->commit(&status_);
  transaction_ = nullptr;
}

void Database::rollback() {
  if (!transaction_) return;
  Firebird::ITransaction* t = transaction_;
  transaction_ = nullptr;
  t->rollback(&status_);
}

void Database::execute(const std::string& sql) {
  attachment_->execute(&status_, transaction(), 0, sql.c_str(), 3, nullptr, nullptr, nullptr,
                       nullptr);
}

void Database::executeAlone(const std::string& sql) {
  Firebird::ITransaction* t = attachment_->startTransaction(&status_, 0, nullptr);
  try {
    attachment_->execute(&status_, t, 0, sql.c_str(), 3, nullptr, nullptr, nullptr, nullptr);
    t->commit(&status_);
  } catch (const Firebird::FbException& e) {
    // The failure that counts is the statement's; the rollback's own is only reported by it.
    const std::string text = describe(e);
    rollbackQuietly(t);
    throw std::runtime_error(sql.substr(0, 60) + "...: " + text);
  }
}

Firebird::IStatement* Database::prepare(const std::string& sql) {
  return attachment_->prepare(&status_, transaction(), 0, sql.c_str(), 3,
                              Firebird::IStatement::PREPARE_PREFETCH_METADATA);
}

std::vector<std::vector<std::string>> Database::texts(const std::string& sql) {
  Firebird::IStatement* s = prepare(sql);
  Firebird::IMessageMetadata* out = nullptr;
  Firebird::IResultSet* rows = nullptr;
  std::vector<std::vector<std::string>> result;
  try {
    out = s->getOutputMetadata(&status_);
    const unsigned columns = out->getCount(&status_);
    std::vector<unsigned char> row(out->getMessageLength(&status_));
    rows = s->openCursor(&status_, transaction(), nullptr, nullptr, out, 0);
    while (rows->fetchNext(&status_, row.data()) == Firebird::IStatus::RESULT_OK) {
      std::vector<std::string>& texts = result.emplace_back(columns);
      for (unsigned i = 0; i < columns; ++i) {
        std::int16_t null;
        std::memcpy(&null, row.data() + out->getNullOffset(&status_, i), 2);
        if (null) continue;
        const unsigned char* p = row.data() + out->getOffset(&status_, i);
        std::uint16_t n;
        std::memcpy(&n, p, 2);
        texts[i].assign(reinterpret_cast<const char*>(p + 2), n);
      }
    }
    rows->close(&status_);
    rows = nullptr;
  } catch (...) {
    if (rows) rows->release();
    if (out) out->release();
    s->release();
    throw;
  }
  out->release();
  s->free(&status_);
  return result;
}

namespace {

const char kPrimaryKeys[] =
    "SELECT CAST(TRIM(R.RDB$RELATION_NAME) AS VARCHAR(252) CHARACTER SET UTF8), "
    "CAST(TRIM(S.RDB$FIELD_NAME) AS VARCHAR(252) CHARACTER SET UTF8) "
    "FROM RDB$RELATIONS R LEFT JOIN RDB$RELATION_CONSTRAINTS C "
    "ON C.RDB$RELATION_NAME = R.RDB$RELATION_NAME AND C.RDB$CONSTRAINT_TYPE = 'PRIMARY KEY' "
    "LEFT JOIN RDB$INDEX_SEGMENTS S ON S.RDB$INDEX_NAME = C.RDB$INDEX_NAME "
    "WHERE COALESCE(R.RDB$SYSTEM_FLAG, 0) = 0 AND R.RDB$VIEW_BLR IS NULL";

}  // namespace

std::vector<std::string> Database::primaryKey(std::string_view table) {
  std::string literal = "'";
  for (const char c : table) literal += c == '\'' ? std::string("''") : std::string(1, c);
  literal += "'";
  std::vector<std::string> columns;
  for (auto& row : texts(std::string(kPrimaryKeys) + " AND R.RDB$RELATION_NAME = " + literal +
                         " ORDER BY S.RDB$FIELD_POSITION"))
    if (!row[1].empty()) columns.push_back(std::move(row[1]));
  return columns;
}

std::map<std::string, std::vector<std::string>> Database::primaryKeys() {
  std::map<std::string, std::vector<std::string>> keys;
  for (auto& row :
       texts(std::string(kPrimaryKeys) + " ORDER BY R.RDB$RELATION_NAME, S.RDB$FIELD_POSITION")) {
    std::vector<std::string>& columns = keys[row[0]];
    if (!row[1].empty()) columns.push_back(std::move(row[1]));
  }
  return keys;
}

ISC_QUAD Database::createBlob(std::string_view data) {
  ISC_QUAD id;
  Firebird::IBlob* blob = attachment_->createBlob(&status_, transaction(), &id, 0, nullptr);
  for (std::size_t at = 0; at < data.size(); at += 65535) {
    const std::size_t n = std::min<std::size_t>(65535, data.size() - at);
    blob->putSegment(&status_, static_cast<unsigned>(n), data.data() + at);
  }
  blob->close(&status_);
  return id;
}

std::string Database::readBlob(const ISC_QUAD& id) {
  ISC_QUAD copy = id;
  Firebird::IBlob* blob = attachment_->openBlob(&status_, transaction(), &copy, 0, nullptr);
  std::string data;
  std::vector<char> piece(65535);
  for (;;) {
    unsigned n = 0;
    const int r = blob->getSegment(&status_, static_cast<unsigned>(piece.size()), piece.data(), &n);
    if (r == Firebird::IStatus::RESULT_NO_DATA) break;
    data.append(piece.data(), n);
  }
  blob->close(&status_);
  return data;
}

void Database::legacyHandles(isc_db_handle& db, isc_tr_handle& tr) {
  // The array calls exist only in the legacy API, which takes handles of its own.
  ISC_STATUS vector[20] = {0};
  fb_get_database_handle(vector, &db, attachment_);
  fb_get_transaction_handle(vector, &tr, transaction());
  checkLegacy(vector, "array handles");
}

const ISC_ARRAY_DESC& Database::arrayDescription(const std::string& table,
                                                 const std::string& column) {
  // Looking the bounds up compiles a request in the server each time, so each column's are
  // looked up once.
  const std::string key = table + '\0' + column;
  auto found = arrays_.find(key);
  if (found != arrays_.end()) return found->second;
  ISC_STATUS vector[20] = {0};
  isc_db_handle db = 0;
  isc_tr_handle tr = 0;
  legacyHandles(db, tr);
  ISC_ARRAY_DESC desc;
  isc_array_lookup_bounds(vector, &db, &tr, table.c_str(), column.c_str(), &desc);
  checkLegacy(vector, "array bounds");
  return arrays_.emplace(key, desc).first->second;
}

std::size_t Database::arrayBytes(const std::string& table, const std::string& column) {
  const ISC_ARRAY_DESC& desc = arrayDescription(table, column);
  std::size_t count = 1;
  for (int i = 0; i < desc.array_desc_dimensions; ++i)
    count *= static_cast<std::size_t>(desc.array_desc_bounds[i].array_bound_upper -
                                      desc.array_desc_bounds[i].array_bound_lower + 1);
  return count * desc.array_desc_length;
}

ISC_QUAD Database::putArray(const std::string& table, const std::string& column,
                            std::string_view elements) {
  ISC_ARRAY_DESC desc = arrayDescription(table, column);
  ISC_STATUS vector[20] = {0};
  isc_db_handle db = 0;
  isc_tr_handle tr = 0;
  legacyHandles(db, tr);
  std::vector<char> data(elements.begin(), elements.end());
  ISC_LONG length = static_cast<ISC_LONG>(data.size());
  ISC_QUAD id = {0, 0};
  isc_array_put_slice(vector, &db, &tr, &id, &desc, data.data(), &length);
  checkLegacy(vector, "array put");
  return id;
}

void Database::drop() {
  if (transaction_) rollback();
  attachment_->dropDatabase(&status_);
  attachment_ = nullptr;
}
