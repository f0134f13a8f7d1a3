// An attachment as the plugin sees it, passing each call on to the real one and timing, as the
// server calls the plugin makes, every call on a blob it opens (PluginCallTimes::InServer).
//
// The plugin reads blobs only: openBlob, and on the blob getSegment, close and release. Those
// are passed on; so are getInfo and cancel on a blob. Any other entry of the interface tables is
// empty, so that a new use fails loudly rather than go untimed.
#pragma once

#include <firebird/Interface.h>

class TimedAttachment : public Firebird::IAttachment {
 public:
  explicit TimedAttachment(Firebird::IAttachment* real);
  // The interface table is a member that the object points at: a copy would point at another's.
  TimedAttachment(const TimedAttachment&) = delete;
  TimedAttachment& operator=(const TimedAttachment&) = delete;

 private:
  static Firebird::IBlob* openBlob(Firebird::IAttachment* self, Firebird::IStatus* status,
                                   Firebird::ITransaction* transaction, ISC_QUAD* id,
                                   unsigned length, const unsigned char* bpb) throw();

  Firebird::IAttachment* real_;
  Firebird::IAttachment::VTable table_{};
};
