// The decoder and everything that renders its events, on any file, and on any byte stream sealed
// into valid blocks so that the decoder's own checks are reached: each log decodes or fails with a
// LogFormatError, and the verifier agrees with the decoder.
#include "EventWriter.h"
#include "FuzzFile.h"
#include "LogDecoder.h"
#include "LogFormatError.h"
#include "LogVerifier.h"
#include "TestFiles.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::uint8_t mode = data[0];
  // With mode bit 0 the rest is the stream after "ZEFO" and version 4, in blocks with right CRCs.
  Bytes file(data + 1, data + size);
  if (mode & 1) {
    file.insert(file.begin(), {'Z', 'E', 'F', 'O', 4});
    file = containerOf(file);
  }
  writeFuzzFile(file.data(), file.size());

  EventFormat format;
  format.blobsAsText = (mode & 2) != 0;
  format.decimalAsDouble = (mode & 4) != 0;
  format.transactions = true;
  std::unique_ptr<EventWriter> writer = EventWriter::create(mode & 8 ? "text" : "json", format);
  bool decoded = false;
  try {
    LogDecoder decoder;
    if (mode & 16)
      decoder.streamBlobs(mode & 32, [](std::string_view, const std::uint8_t*, std::size_t) {});
    decoder.open(fuzzPath());
    writer->beginLog(LogInfo{"fuzz.fbl", 1, 1700000000});
    const ChangeEvent* e = &decoder.next();
    for (; e->kind != ChangeEvent::Kind::kEnd; e = &decoder.next()) {
      writer->event(*e);
      if (writer->pending().size() > (1 << 20)) writer->clear();
    }
    writer->endLog(*e);
    decoded = true;
  } catch (const LogFormatError&) {
  }
  const bool valid = LogVerifier::verify(fuzzPath()).verdict == LogVerifier::Verdict::kValid;
  if (valid != decoded) __builtin_trap();
  return 0;
}
