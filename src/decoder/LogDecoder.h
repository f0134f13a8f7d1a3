// Reads a change log back as typed change events, one at a time.
//
//   LogDecoder log;
//   log.open("/var/lib/cdc/000000006553f103_00000000000004d2.fbl");
//   for (;;) {
//     const ChangeEvent& e = log.next();
//     if (e.kind == ChangeEvent::Kind::kEnd) break;
//     ...  // e.relation, e.fields, e.sqlText: valid until the next call of next()
//   }
//
// Every block is verified with its CRC-32C as it is loaded, and nothing of the file is trusted:
// anything the writer cannot have produced (a truncated record, an unknown tag, a wrong marker or
// type code, bytes after the commit marker, a log without one) throws LogFormatError with the file,
// the log position and what was expected. Only the current event is held in memory; blob contents
// are reassembled, or handed to a receiver piece by piece when they grow past a threshold.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "ChangeEvent.h"
#include "TReadFile.h"

class LogDecoder {
 public:
  // Receives the contents of a streamed blob or array: the field's name and the next bytes.
  using BlobReceiver =
      std::function<void(std::string_view field, const std::uint8_t* data, std::size_t size)>;

  static constexpr std::uint8_t kFormatVersion = 4;

  LogDecoder() = default;
  LogDecoder(const LogDecoder&) = delete;
  LogDecoder& operator=(const LogDecoder&) = delete;

  // Contents longer than threshold bytes go to receiver (what was gathered first, then each piece)
  // and the value is marked streamed; shorter ones are reassembled. Without a receiver every blob
  // is reassembled.
  void streamBlobs(std::uint64_t threshold, BlobReceiver receiver);

  // Opens a log and checks its header ("ZEFO", version 4).
  void open(const std::string& path);

  // The next event. After the commit marker, a kEnd event; calling again after it throws.
  const ChangeEvent& next();

  const std::string& path() const { return path_; }

 private:
  class Reader;

  // Where a view of the event lies in the arena while a record is read across blocks: the arena
  // may move as it grows, so those views are set only once the whole record is in.
  struct Span {
    std::size_t offset = 0;
    std::size_t size = 0;
  };
  struct FieldSpans {
    Span name, before, after;
  };
  // The views of an event that a record's bytes fill.
  enum class Slot { kName, kBefore, kAfter, kRelation, kStatement };

  // The two ways of reading a record, with the same parser over both: straight from the loaded
  // block while the whole record lies in it (no copy: the views point into the block), and
  // through the block reader across blocks, copying into the arena.
  class InBlock;
  class AcrossBlocks;
  template <typename In>
  void readRecord(In& in, std::uint8_t tag);
  template <typename In>
  void readFields(In& in, ChangeEvent::Kind kind);
  template <typename In>
  void readValue(In& in, FieldValue& value, std::size_t field, Slot slot);

  void startEvent();
  // One more entry in the field table, which only grows; returns the table's new place.
  FieldChange* growFields();
  void readPieces(FieldValue& value, std::size_t field, Slot slot);
  Span readBytes(std::size_t n, const char* what);
  void resolveViews();

  std::uint8_t byte(const char* what) {
    if (file_.available() > 0) {
      const std::uint8_t b = *file_.peek();
      file_.consume(1);
      return b;
    }
    return byteAcrossBlocks(what);
  }
  std::uint8_t byteAcrossBlocks(const char* what);
  // Room for n more bytes at the arena's end; the bytes count once stored.
  char* grow(std::size_t n);

  // Log position of the byte read last.
  std::int64_t lastBytePosition();
  [[noreturn]] void fail(std::int64_t position, const std::string& reason) const;
  [[noreturn]] void failByte(const char* expected, std::uint8_t found);
  [[noreturn]] void failEnd(const char* expected);

  std::string path_;
  TReadFile file_;
  ChangeEvent event_;
  bool finished_ = true;
  std::uint32_t nextIndex_ = 0;
  std::unique_ptr<char[]> arena_;
  std::size_t arenaSize_ = 0;
  std::size_t arenaCapacity_ = 0;
  std::vector<FieldChange> storage_;
  std::vector<FieldSpans> spans_;
  Span relationSpan_;
  std::uint64_t streamThreshold_ = std::numeric_limits<std::uint64_t>::max();
  BlobReceiver receiver_;
};
