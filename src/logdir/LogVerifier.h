// Checks a change log file whole: every block's size and CRC-32C, then the structure of its byte
// stream to the commit marker and the end of the file.
//
// A published log (".fbl") is valid or damaged. A temporary one (".tmp") is a log still being
// written, or left behind: it is complete when it decodes to its commit marker (committed, but
// never published under its final name), and incomplete otherwise; an incomplete one is no damage,
// since a writer that stopped halfway (or was rewound into a block on disk) leaves exactly that.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class LogVerifier {
 public:
  struct Problem {
    std::int64_t block;     // number of the 32 KiB block, from 0
    std::int64_t position;  // log position (file offset)
    std::string reason;
  };
  enum class Verdict { kValid, kDamaged, kComplete, kIncomplete };

  struct Result {
    Verdict verdict = Verdict::kValid;
    std::vector<Problem> problems;  // empty for kValid and kComplete
    std::uint32_t events = 0;       // events decoded (rows and statements)
    std::int64_t bytes = 0;         // file length
  };

  // Verifies the file at path; its name decides whether it is published.
  static Result verify(const std::string& path);
  static const char* describe(Verdict verdict);
};
