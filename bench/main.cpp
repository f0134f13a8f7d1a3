// fbcdc_bench: the library's hot paths measured side by side with their limits and peers.
//
//   fbcdc_bench [benchmark flags]   runs the benchmarks, then prints the table of ratios
//   fbcdc_bench --records=N         records N inserts and exits (for instruction counts)
//   fbcdc_bench --hand-records=N    the same records through the hand encoder
#include <cstdlib>
#include <cstring>

#include "BenchSupport.h"

namespace bench {
void insertRecords(long n);
void handEncodeRecords(long n);
}  // namespace bench

int main(int argc, char** argv) {
  if (argc == 2 && std::strncmp(argv[1], "--records=", 10) == 0) {
    bench::insertRecords(std::atol(argv[1] + 10));
    return bench::removeScratchDirectory();
  }
  if (argc == 2 && std::strncmp(argv[1], "--hand-records=", 15) == 0) {
    bench::handEncodeRecords(std::atol(argv[1] + 15));
    return bench::removeScratchDirectory();
  }
  return bench::runAndReport(argc, argv);
}
