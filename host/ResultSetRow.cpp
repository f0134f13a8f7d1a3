#include "ResultSetRow.h"

#include <cstring>
#include <stdexcept>
#include <string>

namespace {

// Metadata calls go through a status of their own; a failure means the caller handed over
// metadata that does not describe the message.
class MetadataReader {
 public:
  explicit MetadataReader(Firebird::IMessageMetadata* metadata)
      : metadata_(metadata),
        status_(Firebird::fb_get_master_interface()->getStatus()),
        wrapper_(status_) {}
  ~MetadataReader() { status_->dispose(); }

  template <typename Call>
  auto operator()(Call call) {
    auto result = call(metadata_, &wrapper_);
    if (wrapper_.getState() & Firebird::IStatus::STATE_ERRORS)
      throw std::runtime_error("cannot read the result set's metadata");
    return result;
  }

 private:
  Firebird::IMessageMetadata* metadata_;
  Firebird::IStatus* status_;
  Firebird::CheckStatusWrapper wrapper_;
};

}  // namespace

std::uint32_t ResultSetRow::typeCodeOf(unsigned sqlType) {
  switch (sqlType & ~1u) {
    case SQL_TEXT:
      return 1;
    case SQL_VARYING:
      return 3;
    case SQL_SHORT:
      return 8;
    case SQL_LONG:
      return 9;
    case SQL_FLOAT:
      return 11;
    case SQL_DOUBLE:
      return 12;
    case SQL_TYPE_DATE:
      return 14;
    case SQL_TYPE_TIME:
      return 15;
    case SQL_TIMESTAMP:
      return 16;
    case SQL_BLOB:
      return 17;
    case SQL_ARRAY:
      return 18;
    case SQL_INT64:
      return 19;
    case SQL_BOOLEAN:
      return 21;
    default:
      return kUnrecordedType;
  }
}

ResultSetRow::ResultSetRow(const char* relation, Firebird::IMessageMetadata* metadata,
                           const unsigned char* message)
    : RowImage(relation) {
  using Meta = Firebird::IMessageMetadata;
  using Status = Firebird::CheckStatusWrapper;
  MetadataReader read(metadata);
  const unsigned count = read([](Meta* m, Status* s) { return m->getCount(s); });
  for (unsigned i = 0; i < count; ++i) {
    Field f;
    const char* field = read([i](Meta* m, Status* s) { return m->getField(s, i); });
    const char* alias = read([i](Meta* m, Status* s) { return m->getAlias(s, i); });
    // A column without field name or alias would be dropped by the plugin as a field without a
    // name; it is named after its position instead.
    f.name = field && *field ? field : alias && *alias ? alias : "COLUMN_" + std::to_string(i + 1);
    const unsigned sqlType = read([i](Meta* m, Status* s) { return m->getType(s, i); });
    f.type = typeCodeOf(sqlType);
    f.scale = read([i](Meta* m, Status* s) { return m->getScale(s, i); });
    const unsigned length = read([i](Meta* m, Status* s) { return m->getLength(s, i); });
    f.length = static_cast<std::int32_t>(length);
    f.charSet =
        static_cast<std::int32_t>(read([i](Meta* m, Status* s) { return m->getCharSet(s, i); }));
    const unsigned offset = read([i](Meta* m, Status* s) { return m->getOffset(s, i); });
    const unsigned nullOffset = read([i](Meta* m, Status* s) { return m->getNullOffset(s, i); });
    std::int16_t indicator = 0;
    std::memcpy(&indicator, message + nullOffset, sizeof indicator);
    f.null = indicator != 0;
    // A varying value is its 2-byte length and the declared length of bytes behind it.
    const unsigned size = (sqlType & ~1u) == SQL_VARYING ? length + 2 : length;
    f.value.assign(message + offset, message + offset + size);
    addField(std::move(f));
  }
}
