// A transaction played from a string of bytes, for the record path's fuzz target and the seeded
// random round trip: inserts, updates and deletes of row images with any names, type codes,
// scales, character sets and values, statements (one, or a run that crosses blocks), savepoints
// started, released and rolled back, then a commit or a dispose without one. The script writes
// down what the log must decode to, the events written less those rolled back, and checks the
// output directory against it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "IReplPlugin.h"

class LiteralRow;

class TransactionScript {
 public:
  // Blob values that rows may carry: where the plugin reads them, and per blob its id and the
  // description of its value (describe()). Without them a blob value is one the writer refuses.
  struct Blobs {
    Firebird::IAttachment* attachment;
    Firebird::ITransaction* transaction;
    std::vector<std::pair<ISC_QUAD, std::string>> values;
  };

  // Choices are read from data (which must outlive the script), 0 once it runs out. With valid,
  // no name, type or value that the writer refuses is chosen, and a refusal is a failure.
  TransactionScript(const std::uint8_t* data, std::size_t size, bool valid,
                    const Blobs& blobs = Blobs{});

  // Plays the script as transaction number of plugin, whose output directory is directory.
  // Returns "" when the directory then holds what it must of the transaction's files: none after a
  // failure, a dispose without commit or when nothing was recorded, else one log that decodes to
  // the events written (not compared after a refused operation, whose record stays unfinished).
  // Otherwise what is wrong, starting with "refused: " or "commit: " and the status text where an
  // operation failed. A published log stays, its path in published.
  std::string play(Firebird::IReplPlugin* plugin, std::uint64_t number,
                   const std::string& directory);

  std::string published;

 private:
  std::uint8_t byte() { return size_ ? (--size_, *data_++) : 0; }
  std::string bytes(std::size_t count);
  // Adds a field to row; returns the description of its value as it must be read back ("refused"
  // for one the writer refuses). skipped: the writer makes no entry for it (type 0, or no name);
  // in an old image its value counts all the same.
  std::string addField(LiteralRow& row, bool old, bool& skipped);

  const std::uint8_t* data_;
  std::size_t size_;
  bool valid_;
  Blobs blobs_;
};
