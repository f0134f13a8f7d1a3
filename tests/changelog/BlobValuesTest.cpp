// Blobs read from a real database through the embedded engine: the bytes of a blob value, and the
// server's own errors while it is read. (Blobs of every size round-trip in LogDecoderTest.)
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <tuple>

#include "EmbeddedDatabase.h"
#include "LiteralRow.h"
#include "PluginFixture.h"

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

using BlobValuesTest = PluginFixture;

// The server's own errors while a blob is read stay in the status, become the operation's result,
// and leave the record unfinished; every blob that was opened is given up exactly once.
TEST_F(BlobValuesTest, ServerErrorsWhileReadingABlob) {
  EmbeddedDatabase db(dir / "test.fdb");
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
    std::int32_t result = -1;
    status.get()->init();
    const Bytes stream = recordStream([&](ReplTransaction* t) {
      result = t->insertRecord(status, &attachment, db.transaction(), &row);
    });
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

}  // namespace
