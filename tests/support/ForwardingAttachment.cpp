#include "ForwardingAttachment.h"

// A blob of the forwarding attachment. The caller holds one reference from openBlob; a successful
// close gives it up, as the engine's own blobs do, and so does release.
class ForwardingBlob : public Firebird::IBlobImpl<ForwardingBlob, Firebird::CheckStatusWrapper> {
 public:
  ForwardingBlob(ForwardingAttachment& owner, Firebird::IBlob* real)
      : owner_(owner), real_(real), fault_(owner.fault_), faultPieces_(owner.faultPieces_) {}

  void addRef() override { ++references_; }
  int release() override {
    if (references_ == 0) {
      ++owner_.extraReleases_;
      return 0;
    }
    if (--references_ == 0) {
      ++owner_.givenUp_;
      // This object is kept alive so that a second release can be counted, not crash.
      if (real_) real_->release();
      real_ = nullptr;
    }
    return references_;
  }

  void getInfo(Firebird::CheckStatusWrapper* s, unsigned il, const unsigned char* items,
               unsigned bl, unsigned char* buffer) override {
    real_->getInfo(s, il, items, bl, buffer);
  }
  int getSegment(Firebird::CheckStatusWrapper* s, unsigned length, void* buffer,
                 unsigned* delivered) override {
    if (fault_ == ForwardingAttachment::BlobFault::kClosedAfterPieces && pieces_ == faultPieces_) {
      // Someone closes the blob under the reader: keep the engine's object alive, close it, and
      // let the engine answer the next read.
      Firebird::IStatus* own = Firebird::fb_get_master_interface()->getStatus();
      Firebird::CheckStatusWrapper ownWrapper(own);
      real_->addRef();
      real_->close(&ownWrapper);
      own->dispose();
      fault_ = ForwardingAttachment::BlobFault::kNone;
    }
    ++pieces_;
    return real_->getSegment(s, length, buffer, delivered);
  }
  void putSegment(Firebird::CheckStatusWrapper* s, unsigned length, const void* buffer) override {
    real_->putSegment(s, length, buffer);
  }
  void cancel(Firebird::CheckStatusWrapper* s) override { real_->cancel(s); }
  void close(Firebird::CheckStatusWrapper* s) override {
    if (fault_ == ForwardingAttachment::BlobFault::kCloseFails) {
      // Closing twice makes the engine refuse the second close with its own error.
      real_->addRef();
      real_->close(s);
      if (s->getState() & Firebird::IStatus::STATE_ERRORS) return;
    }
    real_->close(s);
    if (s->getState() & Firebird::IStatus::STATE_ERRORS) return;
    real_ = nullptr;  // the engine gave up its reference
    release();
  }
  int seek(Firebird::CheckStatusWrapper* s, int mode, int offset) override {
    return real_->seek(s, mode, offset);
  }

 private:
  ForwardingAttachment& owner_;
  Firebird::IBlob* real_;
  ForwardingAttachment::BlobFault fault_;
  int faultPieces_;
  int pieces_ = 0;
  int references_ = 1;
};

Firebird::IBlob* ForwardingAttachment::openBlob(Firebird::CheckStatusWrapper* s,
                                                Firebird::ITransaction* t, ISC_QUAD* id, unsigned l,
                                                const unsigned char* bpb) {
  Firebird::IBlob* real = real_->openBlob(s, t, id, l, bpb);
  if (!real) return nullptr;
  ++opened_;
  blobs_.push_back(new ForwardingBlob(*this, real));
  return blobs_.back();
}

ForwardingAttachment::~ForwardingAttachment() {
  for (ForwardingBlob* blob : blobs_) delete blob;
}
