#include "EmbeddedDatabase.h"

#include <cstring>
#include <stdexcept>

EmbeddedDatabase::EmbeddedDatabase(const std::string& path)
    : master_(Firebird::fb_get_master_interface()),
      status_(master_->getStatus()),
      wrapper_(status_) {
  Firebird::IXpbBuilder* dpb =
      master_->getUtilInterface()->getXpbBuilder(&wrapper_, Firebird::IXpbBuilder::DPB, nullptr, 0);
  dpb->insertInt(&wrapper_, isc_dpb_page_size, 8192);
  dpb->insertString(&wrapper_, isc_dpb_user_name, "SYSDBA");
  // A local path with no host: the client library hands it to the embedded engine.
  attachment_ = master_->getDispatcher()->createDatabase(
      &wrapper_, path.c_str(), dpb->getBufferLength(&wrapper_), dpb->getBuffer(&wrapper_));
  dpb->dispose();
  check(wrapper_, "create database");
  transaction_ = attachment_->startTransaction(&wrapper_, 0, nullptr);
  check(wrapper_, "start transaction");
}

EmbeddedDatabase::~EmbeddedDatabase() {
  if (transaction_) transaction_->rollback(&wrapper_);
  if (attachment_) attachment_->dropDatabase(&wrapper_);
  status_->dispose();
}

void EmbeddedDatabase::check(Firebird::CheckStatusWrapper& wrapper, const char* what) const {
  if (!(wrapper.getState() & Firebird::IStatus::STATE_ERRORS)) return;
  char text[1024];
  master_->getUtilInterface()->formatStatus(text, sizeof text, &wrapper);
  throw std::runtime_error(std::string(what) + ": " + text);
}

void EmbeddedDatabase::commitRetaining() {
  transaction_->commitRetaining(&wrapper_);
  check(wrapper_, "commit");
}

void EmbeddedDatabase::execute(const std::string& sql) {
  attachment_->execute(&wrapper_, transaction_, 0, sql.c_str(), 3, nullptr, nullptr, nullptr,
                       nullptr);
  check(wrapper_, sql.c_str());
}

ISC_QUAD EmbeddedDatabase::createBlob(const Bytes& data, bool stream, std::size_t segment) {
  const unsigned char bpb[] = {
      isc_bpb_version1, isc_bpb_type, 1,
      static_cast<unsigned char>(stream ? isc_bpb_type_stream : isc_bpb_type_segmented)};
  ISC_QUAD id;
  Firebird::IBlob* blob = attachment_->createBlob(&wrapper_, transaction_, &id, sizeof bpb, bpb);
  check(wrapper_, "create blob");
  for (std::size_t at = 0; at < data.size(); at += segment) {
    const std::size_t n = std::min(segment, data.size() - at);
    blob->putSegment(&wrapper_, static_cast<unsigned>(n), data.data() + at);
    check(wrapper_, "put segment");
  }
  blob->close(&wrapper_);
  check(wrapper_, "close blob");
  return id;
}

void EmbeddedDatabase::executeWithArray(const std::string& sql, const char* table,
                                        const char* column, const std::vector<int>& values) {
  // The legacy array calls describe the slice from the column's own bounds.
  ISC_STATUS vector[20];
  isc_db_handle db = 0;
  isc_tr_handle tr = 0;
  ISC_ARRAY_DESC desc;
  std::vector<ISC_LONG> data(values.begin(), values.end());
  ISC_LONG length = static_cast<ISC_LONG>(data.size() * sizeof(ISC_LONG));
  ISC_QUAD id = {0, 0};
  if (fb_get_database_handle(vector, &db, attachment_) ||
      fb_get_transaction_handle(vector, &tr, transaction_) ||
      isc_array_lookup_bounds(vector, &db, &tr, table, column, &desc) ||
      isc_array_put_slice(vector, &db, &tr, &id, &desc, data.data(), &length))
    throw std::runtime_error("array put failed");
  // The slice's id is temporary until a statement binds it to a row.
  Firebird::IMetadataBuilder* builder = master_->getMetadataBuilder(&wrapper_, 1);
  builder->setType(&wrapper_, 0, SQL_ARRAY);
  builder->setLength(&wrapper_, 0, sizeof id);
  Firebird::IMessageMetadata* meta = builder->getMetadata(&wrapper_);
  builder->release();
  check(wrapper_, "metadata");
  std::vector<unsigned char> message(meta->getMessageLength(&wrapper_), 0);
  std::memcpy(message.data() + meta->getOffset(&wrapper_, 0), &id, sizeof id);
  attachment_->execute(&wrapper_, transaction_, 0, sql.c_str(), 3, meta, message.data(), nullptr,
                       nullptr);
  meta->release();
  check(wrapper_, sql.c_str());
}
