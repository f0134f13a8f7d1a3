// The server's row image, and the field cursor with which the plugin walks its fields.
//
// Plain abstract classes of the server, called through their virtual tables: the slot order is
// binding, including the slots the plugin never calls. They are not reference-counted: the plugin
// neither creates, copies nor releases them, and uses them only during the call that hands them
// over.
#pragma once

#include <cstdint>

namespace Firebird {

class IReplField {
 public:
  // True while the cursor stands on a field; false once it moved past the last one, and stays so.
  virtual bool isValid() = 0;
  virtual const char* getName() = 0;  // may be null
  // The type code in the server's descriptor numbering; 0 means nothing to record.
  virtual std::uint32_t getType() = 0;
  virtual std::int32_t getScale() = 0;
  virtual std::int32_t getLength() = 0;
  // Character set in the low byte, collation above it.
  virtual std::int32_t getCharSet() = 0;
  virtual bool isNull() = 0;
  // The value's bytes as the server holds them (for blobs and arrays, the 8-byte id).
  virtual const void* getData() = 0;
  // Moves to the next field; harmless on a cursor that is no longer valid.
  virtual bool moveNext() = 0;

 protected:
  ~IReplField() = default;
};

class IReplRecord {
 public:
  // Slot 0: not called by the plugin; it only keeps the later slots in place.
  virtual std::uint32_t unusedSlot0() = 0;
  // Name of the relation the row belongs to; may be null.
  virtual const char* getName() = 0;
  // Slot 2: not called by the plugin.
  virtual std::uint32_t unusedSlot2() = 0;
  // A cursor on the first field, not valid when the row has none. Owned by the row image.
  virtual IReplField* getFields() = 0;

 protected:
  ~IReplRecord() = default;
};

}  // namespace Firebird
