// Which transactions' changes the rows of a snapshot already contain.
//
// The rows were read in one transaction of concurrency (snapshot) isolation. It sees exactly the
// transactions that had committed when it started: those numbered below its own number that were
// not active at that moment. Writers of the captured tables were held off while the active ones
// were listed (a transaction reserving the tables for protected read waits until no writer of them
// is active and keeps new ones waiting), so the list is the one of the start.
//
// A change log names the transaction that wrote it, so a consumer decides per log whether the
// snapshot already holds its changes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class SnapshotBoundary {
 public:
  SnapshotBoundary() = default;
  SnapshotBoundary(std::uint64_t transaction, std::vector<std::uint64_t> active);

  // The snapshot transaction's own number.
  std::uint64_t transaction() const { return transaction_; }
  // The transactions active when it started, ascending.
  const std::vector<std::uint64_t>& active() const { return active_; }

  // True when the changes of the transaction numbered t are in the rows read: t started before
  // the snapshot transaction and was not active then, so it had committed (a transaction rolled
  // back publishes no log).
  bool contains(std::uint64_t t) const;

  // "<transaction> <active,...>" ("-" for none), and back; parse throws std::runtime_error.
  std::string text() const;
  static SnapshotBoundary parse(const std::string& text);

 private:
  std::uint64_t transaction_ = 0;
  std::vector<std::uint64_t> active_;
};
