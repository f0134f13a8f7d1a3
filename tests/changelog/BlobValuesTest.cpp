// Blobs read from a real database through the embedded engine: every size, empty segments, and the
// server's own errors. Logs are read back with the product's decoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <tuple>

#include "EmbeddedDatabase.h"
#include "EventDescription.h"
#include "LiteralRow.h"
#include "LogDecoder.h"
#include "PluginFixture.h"
#include "ResultSetRow.h"

namespace {

// Passes openBlob to a real attachment; its blobs fail on demand with the engine's own errors and
// count the caller's references. The plugin asks only for openBlob, getSegment, close and release:
// the other entries of the interface tables stay empty and would fail loudly.
class ForwardingAttachment : public Firebird::IAttachment {
 public:
  enum class Fault { kNone, kClosedAfterTwoPieces, kCloseFails };

  ForwardingAttachment(Firebird::IAttachment* real, Fault fault)
      : IAttachment(Firebird::DoNotInherit()), real_(real), fault_(fault) {
    table_.version = VERSION;
    table_.openBlob = openBlob;
    cloopVTable = &table_;
  }

  int opened = 0, givenUp = 0, extraReleases = 0;

 private:
  struct Blob : Firebird::IBlob {
    Blob(ForwardingAttachment& owner, Firebird::IBlob* real)
        : IBlob(Firebird::DoNotInherit()), owner(owner), real(real) {
      static Firebird::IBlob::VTable table = [] {
        Firebird::IBlob::VTable t{};
        t.version = VERSION;
        t.getSegment = ForwardingAttachment::getSegment;
        t.close = ForwardingAttachment::close;
        t.release = ForwardingAttachment::release;
        return t;
      }();
      cloopVTable = &table;
    }
    ForwardingAttachment& owner;
    Firebird::IBlob* real;
    int pieces = 0, references = 1;
  };

  static Firebird::IBlob* openBlob(Firebird::IAttachment* self, Firebird::IStatus* status,
                                   Firebird::ITransaction* t, ISC_QUAD* id, unsigned length,
                                   const unsigned char* bpb) throw() {
    auto& me = *static_cast<ForwardingAttachment*>(self);
    Firebird::CheckStatusWrapper w(status);
    Firebird::IBlob* real = me.real_->openBlob(&w, t, id, length, bpb);
    if (!real) return nullptr;
    ++me.opened;
    // Kept until the attachment goes, so that a blob released twice is still there to count it.
    me.blobs_.push_back(std::make_unique<Blob>(me, real));
    return me.blobs_.back().get();
  }

  static int getSegment(Firebird::IBlob* self, Firebird::IStatus* status, unsigned length,
                        void* buffer, unsigned* delivered) throw() {
    Blob& b = *static_cast<Blob*>(self);
    Firebird::CheckStatusWrapper w(status);
    if (b.owner.fault_ == Fault::kClosedAfterTwoPieces && b.pieces++ == 2) {
      // Closed under the reader: the engine's object is kept alive and answers the next read.
      FbStatus own;
      Firebird::CheckStatusWrapper ownWrapper(own);
      b.real->addRef();
      b.real->close(&ownWrapper);
    }
    return b.real->getSegment(&w, length, buffer, delivered);
  }

  static void close(Firebird::IBlob* self, Firebird::IStatus* status) throw() {
    Blob& b = *static_cast<Blob*>(self);
    Firebird::CheckStatusWrapper w(status);
    if (b.owner.fault_ == Fault::kCloseFails) {
      // Closing twice makes the engine refuse the second close with its own error.
      b.real->addRef();
      b.real->close(&w);
    }
    if (!(w.getState() & Firebird::IStatus::STATE_ERRORS)) b.real->close(&w);
    if (w.getState() & Firebird::IStatus::STATE_ERRORS) return;
    b.real = nullptr;  // a successful close gives up the caller's reference, as the engine's does
    release(self);
  }

  static int release(Firebird::IReferenceCounted* self) throw() {
    Blob& b = *static_cast<Blob*>(static_cast<Firebird::IBlob*>(self));
    if (--b.references < 0) ++b.owner.extraReleases;  // released after it was given up
    if (b.references != 0) return std::max(b.references, 0);
    ++b.owner.givenUp;
    if (b.real) b.real->release();
    return 0;
  }

  Firebird::IAttachment* real_;
  Fault fault_;
  Firebird::IAttachment::VTable table_{};
  std::vector<std::unique_ptr<Blob>> blobs_;
};

class BlobValuesTest : public PluginFixture {
 protected:
  // Records one insert of row, its blobs read through attachment (the database's own when null);
  // returns the operation's result and keeps the published stream in `stream`.
  std::int32_t insert(Firebird::IReplRecord* row, Firebird::IAttachment* attachment = nullptr) {
    status.get()->init();
    std::int32_t result = -1;
    stream = recordStream([&](ReplTransaction* t) {
      result =
          t->insertRecord(status, attachment ? attachment : db.attachment(), db.transaction(), row);
    });
    return result;
  }

  // The one field of the published log's one insert into T, decoded: "<name> <old value>, <type
  // code>: <bytes>". Checks that the log ends behind the record.
  std::string decodeSingle() {
    LogDecoder log;
    log.open(publishedLog());
    const ChangeEvent& e = log.next();
    EXPECT_EQ(ChangeEvent::Kind::kInsert, e.kind);
    EXPECT_EQ("T", e.relation);
    if (e.fields.size() != 1) return std::to_string(e.fields.size()) + " fields";
    const FieldValue& v = e.fields[0].after;
    const std::string field = std::string(e.fields[0].name) + " " + describe(e.fields[0].before) +
                              ", " + std::to_string(v.typeCode) + ": " + hexOf(v.bytes);
    EXPECT_EQ(ChangeEvent::Kind::kEnd, log.next().kind);
    return field;
  }

  EmbeddedDatabase db{dir / "test.fdb"};
  Bytes stream;
};

// Blobs of every size read back whole, in the pieces the server delivered (a segmented blob's at
// most its segments), read from the stream: "49 00 01 54 01 42 FD 11", the pieces, "00 00 FF".
TEST_F(BlobValuesTest, BlobsOfEverySizeRoundTrip) {
  for (std::size_t size : {0, 1, 65535, 65536, 3 << 20}) {
    for (bool streamBlob : {true, false}) {
      SCOPED_TRACE(std::to_string(size) + (streamBlob ? " stream" : " segmented"));
      const Bytes data = randomBytes(size, static_cast<unsigned>(size));
      LiteralRow row("T");
      row.addBlob("B", db.createBlob(data, streamBlob, 40000));
      ASSERT_EQ(0, insert(&row)) << status.text();
      ASSERT_EQ("49 00 01 54 01 42 FD 11", hex(Bytes(stream.begin(), stream.begin() + 8)));
      std::size_t at = 8, total = 0;
      for (std::size_t n; (n = stream.at(at) | stream.at(at + 1) << 8) != 0; at += 2 + n) {
        EXPECT_LE(n, streamBlob ? 65535u : 40000u);
        total += n;
      }
      EXPECT_EQ(size, total) << "an empty piece would have ended the list early";
      EXPECT_EQ(at + 3, stream.size());
      EXPECT_EQ(0xFF, stream.back());
      EXPECT_EQ("B absent, 17: " + hex(data), decodeSingle());
    }
  }
}

// An empty segment is not written: its length would end the list.
TEST_F(BlobValuesTest, EmptySegmentIsSkipped) {
  ISC_QUAD id;
  Firebird::IBlob* blob =
      db.attachment()->createBlob(db.status(), db.transaction(), &id, 0, nullptr);
  for (const char* segment : {"abc", "", "de"})
    blob->putSegment(db.status(), static_cast<unsigned>(std::strlen(segment)), segment);
  blob->close(db.status());
  LiteralRow row("T");
  row.addBlob("B", id);
  ASSERT_EQ(0, insert(&row)) << status.text();
  EXPECT_EQ("49 00 01 54 01 42 FD 11 03 00 61 62 63 02 00 64 65 00 00 FF", hex(stream));
}

// The server's own errors while a blob is read stay in the status, become the operation's result,
// and leave the record unfinished; every blob that was opened is given up exactly once.
TEST_F(BlobValuesTest, ServerErrorsWhileReadingABlob) {
  const Bytes data = randomBytes(5 * 1000, 3);
  const ISC_QUAD id = db.createBlob(data, false, 1000);
  using Fault = ForwardingAttachment::Fault;
  // Name, fault, blob, pieces recorded, blobs opened.
  const std::tuple<const char*, Fault, ISC_QUAD, std::size_t, int> cases[] = {
      {"no such blob", Fault::kNone, ISC_QUAD{0x7FFF, 0x7FFFFF}, 0, 0},
      {"closed under the reader after two pieces", Fault::kClosedAfterTwoPieces, id, 2, 1},
      {"close fails", Fault::kCloseFails, id, 5, 1},
      {"no fault", Fault::kNone, id, 5, 1},
  };
  for (const auto& [name, fault, blob, piecesKept, opened] : cases) {
    SCOPED_TRACE(name);
    ForwardingAttachment attachment(db.attachment(), fault);
    LiteralRow row("T");
    row.addBlob("B", blob).addLong("AFTER", 1);
    const std::int32_t result = insert(&row, &attachment);
    EXPECT_EQ(opened, attachment.opened);
    EXPECT_EQ(opened, attachment.givenUp);
    EXPECT_EQ(0, attachment.extraReleases);
    std::string expected = "49 00 01 54 01 42 FD 11";
    for (std::size_t i = 0; i < piecesKept; ++i)
      expected += " E8 03 " + hex(Bytes(data.begin() + i * 1000, data.begin() + (i + 1) * 1000));
    if (fault == Fault::kNone && opened) {
      EXPECT_EQ(0, result) << status.text();
      EXPECT_EQ(expected + " 00 00 05 41 46 54 45 52 FD 09 00 00 01 00 00 00 FF", hex(stream));
      continue;
    }
    const Strings errors = status.errors();
    ASSERT_LE(2u, errors.size());
    EXPECT_EQ("1", errors[0]);
    EXPECT_EQ(std::stoll(errors[1]), result) << "the server's code is the result";
    EXPECT_NE("335544382", errors[1]) << "the server's own error, not one of ours";
    EXPECT_EQ(expected, hex(stream)) << "no terminator, no further field, no end byte";
  }
}

// Unrecorded column types map to a code the plugin refuses (see RefusedTypes). No result set of
// this server has one, so the client library's builder makes it; an unnamed column is numbered.
TEST(ResultSetRowTest, UnrecordedTypesAndUnnamedColumns) {
  for (unsigned type : {SQL_D_FLOAT, SQL_QUAD, SQL_NULL, SQL_QUAD + 1})
    EXPECT_EQ(ResultSetRow::kUnrecordedType, ResultSetRow::typeCodeOf(type)) << type;
  FbStatus st;
  Firebird::CheckStatusWrapper w(st);
  Firebird::IMetadataBuilder* builder =
      Firebird::fb_get_master_interface()->getMetadataBuilder(&w, 2);
  builder->setType(&w, 0, SQL_LONG);
  builder->setLength(&w, 0, 4);
  builder->setType(&w, 1, SQL_QUAD);
  builder->setLength(&w, 1, 8);
  Firebird::IMessageMetadata* meta = builder->getMetadata(&w);
  builder->release();
  ASSERT_FALSE(st.hasErrors()) << st.text();
  const std::vector<unsigned char> message(meta->getMessageLength(&w), 0);
  ResultSetRow row("ODD", meta, message.data());
  meta->release();
  EXPECT_EQ(9u, row.fields()[0].type);
  EXPECT_EQ(ResultSetRow::kUnrecordedType, row.fields()[1].type);
  EXPECT_EQ("COLUMN_2", row.fields()[1].name);
}

}  // namespace
