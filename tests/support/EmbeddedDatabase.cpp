#include "EmbeddedDatabase.h"

#include <algorithm>

EmbeddedDatabase::~EmbeddedDatabase() {
  try {
    drop();
  } catch (const Firebird::FbException&) {
    // Still attached: the base detaches, and the temporary directory goes with the file.
  }
}

ISC_QUAD EmbeddedDatabase::createBlob(const Bytes& data, bool stream, std::size_t segment) {
  const unsigned char bpb[] = {
      isc_bpb_version1, isc_bpb_type, 1,
      static_cast<unsigned char>(stream ? isc_bpb_type_stream : isc_bpb_type_segmented)};
  ISC_QUAD id;
  Firebird::IBlob* blob = attachment()->createBlob(status(), transaction(), &id, sizeof bpb, bpb);
  for (std::size_t at = 0; at < data.size(); at += segment)
    blob->putSegment(status(), static_cast<unsigned>(std::min(segment, data.size() - at)),
                     data.data() + at);
  blob->close(status());
  return id;
}
