// An attachment that passes every call to a real one, and whose blobs can be made to fail in ways
// that no real database does on demand: closed under the reader after some pieces, or refusing to
// close. The failures are the real engine's own errors, produced by calling the real blob in a
// state where the engine refuses the call.
//
// It also keeps account of the references the caller holds on each blob it opened, so a test can
// check that every blob was given up exactly once (by a successful close, or by release).
#pragma once

#include <vector>

#include <firebird/Interface.h>

class ForwardingBlob;

class ForwardingAttachment
    : public Firebird::IAttachmentImpl<ForwardingAttachment, Firebird::CheckStatusWrapper> {
 public:
  enum class BlobFault { kNone, kClosedAfterPieces, kCloseFails };

  explicit ForwardingAttachment(Firebird::IAttachment* real) : real_(real) {}
  ~ForwardingAttachment();
  ForwardingAttachment(const ForwardingAttachment&) = delete;
  ForwardingAttachment& operator=(const ForwardingAttachment&) = delete;

  void injectBlobFault(BlobFault fault, int pieces = 0) {
    fault_ = fault;
    faultPieces_ = pieces;
  }
  int blobsOpened() const { return opened_; }
  int blobsGivenUp() const { return givenUp_; }
  // Releases of a blob whose caller had already given it up.
  int extraReleases() const { return extraReleases_; }

  // Reference counting of the attachment itself: owned by the test, never freed through these.
  void addRef() override {}
  int release() override { return 1; }

  void getInfo(Firebird::CheckStatusWrapper* s, unsigned il, const unsigned char* items,
               unsigned bl, unsigned char* buffer) override {
    real_->getInfo(s, il, items, bl, buffer);
  }
  Firebird::ITransaction* startTransaction(Firebird::CheckStatusWrapper* s, unsigned l,
                                           const unsigned char* tpb) override {
    return real_->startTransaction(s, l, tpb);
  }
  Firebird::ITransaction* reconnectTransaction(Firebird::CheckStatusWrapper* s, unsigned l,
                                               const unsigned char* id) override {
    return real_->reconnectTransaction(s, l, id);
  }
  Firebird::IRequest* compileRequest(Firebird::CheckStatusWrapper* s, unsigned l,
                                     const unsigned char* blr) override {
    return real_->compileRequest(s, l, blr);
  }
  void transactRequest(Firebird::CheckStatusWrapper* s, Firebird::ITransaction* t, unsigned bl,
                       const unsigned char* blr, unsigned il, const unsigned char* in, unsigned ol,
                       unsigned char* out) override {
    real_->transactRequest(s, t, bl, blr, il, in, ol, out);
  }
  Firebird::IBlob* createBlob(Firebird::CheckStatusWrapper* s, Firebird::ITransaction* t,
                              ISC_QUAD* id, unsigned l, const unsigned char* bpb) override {
    return real_->createBlob(s, t, id, l, bpb);
  }
  Firebird::IBlob* openBlob(Firebird::CheckStatusWrapper* s, Firebird::ITransaction* t,
                            ISC_QUAD* id, unsigned l, const unsigned char* bpb) override;
  int getSlice(Firebird::CheckStatusWrapper* s, Firebird::ITransaction* t, ISC_QUAD* id,
               unsigned sl, const unsigned char* sdl, unsigned pl, const unsigned char* p, int len,
               unsigned char* slice) override {
    return real_->getSlice(s, t, id, sl, sdl, pl, p, len, slice);
  }
  void putSlice(Firebird::CheckStatusWrapper* s, Firebird::ITransaction* t, ISC_QUAD* id,
                unsigned sl, const unsigned char* sdl, unsigned pl, const unsigned char* p, int len,
                unsigned char* slice) override {
    real_->putSlice(s, t, id, sl, sdl, pl, p, len, slice);
  }
  void executeDyn(Firebird::CheckStatusWrapper* s, Firebird::ITransaction* t, unsigned l,
                  const unsigned char* dyn) override {
    real_->executeDyn(s, t, l, dyn);
  }
  Firebird::IStatement* prepare(Firebird::CheckStatusWrapper* s, Firebird::ITransaction* t,
                                unsigned l, const char* sql, unsigned d, unsigned f) override {
    return real_->prepare(s, t, l, sql, d, f);
  }
  Firebird::ITransaction* execute(Firebird::CheckStatusWrapper* s, Firebird::ITransaction* t,
                                  unsigned l, const char* sql, unsigned d,
                                  Firebird::IMessageMetadata* im, void* in,
                                  Firebird::IMessageMetadata* om, void* out) override {
    return real_->execute(s, t, l, sql, d, im, in, om, out);
  }
  Firebird::IResultSet* openCursor(Firebird::CheckStatusWrapper* s, Firebird::ITransaction* t,
                                   unsigned l, const char* sql, unsigned d,
                                   Firebird::IMessageMetadata* im, void* in,
                                   Firebird::IMessageMetadata* om, const char* name,
                                   unsigned flags) override {
    return real_->openCursor(s, t, l, sql, d, im, in, om, name, flags);
  }
  Firebird::IEvents* queEvents(Firebird::CheckStatusWrapper* s, Firebird::IEventCallback* c,
                               unsigned l, const unsigned char* e) override {
    return real_->queEvents(s, c, l, e);
  }
  void cancelOperation(Firebird::CheckStatusWrapper* s, int option) override {
    real_->cancelOperation(s, option);
  }
  void ping(Firebird::CheckStatusWrapper* s) override { real_->ping(s); }
  void detach(Firebird::CheckStatusWrapper* s) override { real_->detach(s); }
  void dropDatabase(Firebird::CheckStatusWrapper* s) override { real_->dropDatabase(s); }

 private:
  friend class ForwardingBlob;

  Firebird::IAttachment* real_;
  BlobFault fault_ = BlobFault::kNone;
  int faultPieces_ = 0;
  int opened_ = 0;
  int givenUp_ = 0;
  int extraReleases_ = 0;
  // Kept until the attachment goes, so that a blob released twice is still there to count it.
  std::vector<ForwardingBlob*> blobs_;
};
