#include "TimedAttachment.h"

#include "PluginCallTimes.h"

namespace {

using Firebird::CheckStatusWrapper;
using InServer = PluginCallTimes::InServer;

// A blob of the real attachment; it lives as long as the plugin holds its one reference.
struct TimedBlob : Firebird::IBlob {
  explicit TimedBlob(Firebird::IBlob* real) : IBlob(Firebird::DoNotInherit()), real(real) {
    static const Firebird::IBlob::VTable table = [] {
      Firebird::IBlob::VTable t{};
      t.version = VERSION;
      t.addRef = addRef;
      t.release = release;
      t.getInfo = getInfo;
      t.getSegment = getSegment;
      t.cancel = cancel;
      t.close = close;
      return t;
    }();
    cloopVTable = const_cast<Firebird::IBlob::VTable*>(&table);
  }

  static TimedBlob& of(Firebird::IReferenceCounted* self) {
    return *static_cast<TimedBlob*>(static_cast<Firebird::IBlob*>(self));
  }

  static void addRef(Firebird::IReferenceCounted* self) throw() { ++of(self).references; }

  static int release(Firebird::IReferenceCounted* self) throw() {
    TimedBlob& b = of(self);
    if (--b.references > 0) return b.references;
    if (b.real) {
      InServer timed;
      b.real->release();
    }
    delete &b;
    return 0;
  }

  static void getInfo(Firebird::IBlob* self, Firebird::IStatus* status, unsigned itemsLength,
                      const unsigned char* items, unsigned bufferLength,
                      unsigned char* buffer) throw() {
    InServer timed;
    CheckStatusWrapper w(status);
    of(self).real->getInfo(&w, itemsLength, items, bufferLength, buffer);
  }

  static int getSegment(Firebird::IBlob* self, Firebird::IStatus* status, unsigned length,
                        void* buffer, unsigned* delivered) throw() {
    InServer timed;
    CheckStatusWrapper w(status);
    return of(self).real->getSegment(&w, length, buffer, delivered);
  }

  // A successful cancel or close gives up the caller's reference, as the engine's do.
  static void cancel(Firebird::IBlob* self, Firebird::IStatus* status) throw() {
    end(self, status, false);
  }
  static void close(Firebird::IBlob* self, Firebird::IStatus* status) throw() {
    end(self, status, true);
  }
  static void end(Firebird::IBlob* self, Firebird::IStatus* status, bool close) {
    TimedBlob& b = of(self);
    CheckStatusWrapper w(status);
    {
      InServer timed;
      close ? b.real->close(&w) : b.real->cancel(&w);
    }
    if (w.getState() & Firebird::IStatus::STATE_ERRORS) return;
    b.real = nullptr;
    release(self);
  }

  Firebird::IBlob* real;
  int references = 1;
};

}  // namespace

TimedAttachment::TimedAttachment(Firebird::IAttachment* real)
    : IAttachment(Firebird::DoNotInherit()), real_(real) {
  table_.version = VERSION;
  table_.openBlob = openBlob;
  cloopVTable = &table_;
}

Firebird::IBlob* TimedAttachment::openBlob(Firebird::IAttachment* self, Firebird::IStatus* status,
                                           Firebird::ITransaction* transaction, ISC_QUAD* id,
                                           unsigned length, const unsigned char* bpb) throw() {
  Firebird::IBlob* real;
  {
    InServer timed;
    CheckStatusWrapper w(status);
    real = static_cast<TimedAttachment*>(self)->real_->openBlob(&w, transaction, id, length, bpb);
  }
  return real ? new TimedBlob(real) : nullptr;
}
