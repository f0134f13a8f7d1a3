#include "BenchSupport.h"

#include "IReplTransaction.h"
#include "LogDirectory.h"
#include "OrderRow.h"
#include "Processes.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <vector>

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace bench {

namespace {

std::int64_t mibFromEnvironment(const char* name, std::int64_t fallback) {
  const char* text = std::getenv(name);
  const std::int64_t mib = text ? std::atoll(text) : fallback;
  return (mib > 0 ? mib : fallback) << 20;
}

// The figures of every run, by run name, for the table printed after the run.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      std::map<std::string, double>& figures = figures_[run.benchmark_name()];
      for (const auto& counter : run.counters) figures[counter.first] = counter.second.value;
      figures["real_ns"] = run.GetAdjustedRealTime();
    }
  }
  const std::map<std::string, std::map<std::string, double>>& figures() const { return figures_; }

 private:
  std::map<std::string, std::map<std::string, double>> figures_;
};

const Ratio kRatios[] = {
    {"CRC-32C, 32764-byte block vs ISA-L crc32_iscsi (in turns)", "Crc32cBlockInTurnsWithIsal",
     "Crc32cBlockInTurnsWithIsal", "ours_bytes_per_second", 1.0, "isal_bytes_per_second"},
    {"  the same without AVX-512 vs ISA-L crc32_iscsi_01 (in turns)",
     "Crc32cWithoutAvx512InTurnsWithIsal", "Crc32cWithoutAvx512InTurnsWithIsal",
     "ours_bytes_per_second", 1.0, "isal_bytes_per_second"},
    {"CRC-32C, 32764-byte block vs ISA-L (separate runs)", "Crc32c/32764", "IsalCrc32Iscsi/32764",
     "bytes_per_second", 0},
    {"CRC-32C of 8 bytes vs ISA-L", "Crc32c/8", "IsalCrc32Iscsi/8", "bytes_per_second", 0},
    {"CRC-32C of 64 bytes vs ISA-L", "Crc32c/64", "IsalCrc32Iscsi/64", "bytes_per_second", 0},
    {"CRC-32C table implementation vs ISA-L, 32764 bytes", "Crc32cTable/32764",
     "IsalCrc32Iscsi/32764", "bytes_per_second", 0},
    {"Block writer, mixed puts vs copy+CRC+write loop", "WriterMixedPuts", "WriterLimit",
     "bytes_per_second", 0.8},
    {"insertRecord of a 10-field row vs hand encoder (in turns)", "InsertRecordInTurnsWithHand",
     "InsertRecordInTurnsWithHand", "plugin_records_per_second", 0.5, "hand_records_per_second"},
    {"  the same, as two separate benchmarks", "InsertRecord", "HandEncoder", "items_per_second",
     0},
    {"64 MiB blob through insertRecord vs getSegment + block writes", "BlobThroughPlugin",
     "BlobSerialLimit", "bytes_per_second", 0.8},
    {"  the same vs getSegment alone", "BlobThroughPlugin", "BlobGetSegmentOnly",
     "bytes_per_second", 0},
    {"TReadFile with CRC vs read() calls alone (in turns)", "ReaderInTurnsWithRead",
     "ReaderInTurnsWithRead", "reader_bytes_per_second", 0.8, "read_bytes_per_second"},
    {"  the same, as two separate benchmarks", "ReaderWithCrc", "ReadCallsOnly", "bytes_per_second",
     0},
    {"  TReadFile with CRC vs CRC-32C in memory", "ReaderWithCrc", "Crc32cInMemory",
     "bytes_per_second", 0},
    {"  read() calls alone vs CRC-32C in memory", "ReadCallsOnly", "Crc32cInMemory",
     "bytes_per_second", 0},
    {"  blob: the log writer's limit vs getSegment alone", "WriterLimit", "BlobGetSegmentOnly",
     "bytes_per_second", 0},
    {"  share of insertRecord's time in the row image's own calls", "InsertRecord", "RowImageWalk",
     "items_per_second", 0},
    {"Decoding 10-field inserts vs TReadFile, same bytes (in turns)", "DecodeInTurnsWithRead",
     "DecodeInTurnsWithRead", "decode_bytes_per_second", 0.5, "read_bytes_per_second"},
    {"  the same, as two separate benchmarks", "DecodeInserts", "ReadSameBytes", "bytes_per_second",
     0},
    {"  decoding vs the same fields walked with TReadFile's gets", "DecodeInserts",
     "WalkSameFields", "bytes_per_second", 0},
    {"  stepping over the records, keeping nothing, vs TReadFile", "StepOverRecords",
     "ReadSameBytes", "bytes_per_second", 0},
    {"dump --format json of 10-field inserts vs 1 million events/s", "DumpJson", nullptr,
     "items_per_second", 0, nullptr, 1e6},
    {"dump as a process, 300,000 inserts, vs 1 million events/s", "DumpProcessAgainstLimits",
     nullptr, "dump_events_per_second", 1.0, nullptr, 1e6},
    {"  the same per second of the process's processor time", "DumpProcessAgainstLimits", nullptr,
     "dump_events_per_cpu_second", 0, nullptr, 1e6},
    {"  dump as a process vs write(2) of the rendered bytes", "DumpProcessAgainstLimits",
     "DumpProcessAgainstLimits", "dump_events_per_second", 0, "write_events_per_second"},
    {"  dump as a process vs the decoder alone", "DumpProcessAgainstLimits",
     "DumpProcessAgainstLimits", "dump_events_per_second", 0, "decode_events_per_second"},
    {"apply, demo workload, vs prepared statements in a loop",
     "ApplyAgainstStatements/max_blob:4194304", "ApplyAgainstStatements/max_blob:4194304",
     "checked_rows_per_second", 0.8, "loop_rows_per_second"},
    {"  the same without the old-value check", "ApplyAgainstStatements/max_blob:4194304",
     "ApplyAgainstStatements/max_blob:4194304", "unchecked_rows_per_second", 0,
     "loop_rows_per_second"},
    {"apply, no blobs (--max-blob 0), vs prepared statements", "ApplyAgainstStatements/max_blob:0",
     "ApplyAgainstStatements/max_blob:0", "checked_rows_per_second", 0.8, "loop_rows_per_second"},
    {"  the same without the old-value check", "ApplyAgainstStatements/max_blob:0",
     "ApplyAgainstStatements/max_blob:0", "unchecked_rows_per_second", 0, "loop_rows_per_second"},
    {"follow --sink kafka vs librdkafka producer loop (in turns)", "KafkaSinkAgainstProducer",
     "KafkaSinkAgainstProducer", "sink_events_per_second", 0.8, "producer_events_per_second"},
    {"follow --sink redis vs hiredis XADDs in MULTI/EXEC", "RedisSinkAgainstPipeline",
     "RedisSinkAgainstPipeline", "sink_events_per_second", 0.7, "multi_events_per_second"},
    {"  the same vs XADDs pipelined without MULTI/EXEC", "RedisSinkAgainstPipeline",
     "RedisSinkAgainstPipeline", "sink_events_per_second", 0, "pipelined_events_per_second"},
    {"follow --sink kafka (mock cluster) vs dump to a file", "KafkaMockCluster", "DumpToFile",
     "items_per_second", 0},
    {"follow --sink redis (local server) vs dump to a file", "RedisLocalServer", "DumpToFile",
     "items_per_second", 0},
    {"single-record transactions, durable vs default, memory",
     "SingleRecordTransactions/durable:1/disk:0", "SingleRecordTransactions/durable:0/disk:0",
     "items_per_second", 0},
    {"single-record transactions, durable vs default, disk",
     "SingleRecordTransactions/durable:1/disk:1", "SingleRecordTransactions/durable:0/disk:1",
     "items_per_second", 0},
    {"  default mode, disk vs memory", "SingleRecordTransactions/durable:0/disk:1",
     "SingleRecordTransactions/durable:0/disk:0", "items_per_second", 0},
};

struct Check {
  const char* what;
  const char* run;
  const char* counter;
  double low, high;  // the counter must lie in [low, high]
};

const Check kChecks[] = {
    {"write calls per block (writer)", "WriterMixedPuts", "writes_per_block", 1, 1},
    {"lseek64 calls per MiB (writer, no rewinds)", "WriterMixedPuts", "lseek_per_MiB", 0, 0},
    {"read calls per block (reader)", "ReaderWithCrc", "reads_per_block", 1, 1},
    {"lseek64 calls per MiB (reader, no seeks)", "ReaderWithCrc", "lseek_per_MiB", 0, 0},
    {"allocations per record", "InsertRecord", "allocations_per_record", 0, 0},
    {"allocations per decoded event", "DecodeInserts", "allocations_per_event", 0, 0},
    {"resident memory growth of the writer, KiB", "BlobThroughPlugin", "rss_growth_KiB", -1e9,
     1023},
    {"positionings per rollback into a block on disk", "RollbackIntoBlockOnDisk",
     "lseek_per_rollback", 2, 2},
    {"reads per rollback", "RollbackIntoBlockOnDisk", "reads_per_rollback", 1, 1},
    {"bytes read per rollback", "RollbackIntoBlockOnDisk", "bytes_read_per_rollback", 32768, 32768},
};

const std::map<std::string, double>* find(
    const std::map<std::string, std::map<std::string, double>>& figures, const std::string& name) {
  // Runs are named with their arguments and options; match on the start of the name, and take
  // the median where a benchmark was repeated.
  const std::map<std::string, double>* found = nullptr;
  for (const auto& entry : figures) {
    const std::string& run = entry.first;
    if (run != name && run.rfind(name + "/", 0) != 0 && run.rfind(name + "_", 0) != 0) continue;
    if (run.size() >= 7 && run.compare(run.size() - 7, 7, "_median") == 0) return &entry.second;
    const bool aggregate = run.find("_mean") != std::string::npos ||
                           run.find("_stddev") != std::string::npos ||
                           run.find("_cv") != std::string::npos;
    if (!aggregate && !found) found = &entry.second;
  }
  return found;
}

void printTable(const std::map<std::string, std::map<std::string, double>>& figures) {
  std::printf("\n%-58s %9s %8s  %s\n", "ratio (same run)", "measured", "target", "");
  for (const Ratio& r : kRatios) {
    const auto* num = find(figures, r.numerator);
    const std::map<std::string, double> limit = {{r.counter, r.limit}};
    const auto* den = r.denominator ? find(figures, r.denominator) : &limit;
    const char* denCounter = r.denominatorCounter ? r.denominatorCounter : r.counter;
    if (!num || !den || !num->count(r.counter) || !den->count(denCounter)) {
      std::printf("%-58s %9s\n", r.what, "not run");
      continue;
    }
    const double ratio = num->at(r.counter) / den->at(denCounter);
    if (r.target > 0) {
      std::printf("%-58s %8.2fx %7.2fx  %s\n", r.what, ratio, r.target,
                  ratio >= r.target ? "MET" : "MISSED");
    } else {
      std::printf("%-58s %8.2fx %8s\n", r.what, ratio, "-");
    }
  }
  std::printf("\n%-58s %9s %17s\n", "counted", "measured", "expected");
  for (const Check& c : kChecks) {
    const auto* run = find(figures, c.run);
    if (!run || !run->count(c.counter)) {
      std::printf("%-58s %9s\n", c.what, "not run");
      continue;
    }
    const double v = run->at(c.counter);
    char expected[32];
    if (c.low == c.high) {
      std::snprintf(expected, sizeof expected, "%g", c.low);
    } else {
      std::snprintf(expected, sizeof expected, "<= %g", c.high);
    }
    std::printf("%-58s %9.2f %17s  %s\n", c.what, v, expected,
                v >= c.low && v <= c.high ? "MET" : "MISSED");
  }
}

}  // namespace

std::int64_t streamBytes() { return mibFromEnvironment("FBCDC_BENCH_MIB", 1024); }
std::int64_t blobBytes() { return mibFromEnvironment("FBCDC_BENCH_BLOB_MIB", 64); }
double pairSeconds() { return streamBytes() >= (std::int64_t{256} << 20) ? 3 : 0.01; }

const std::string& scratchDirectory() {
  static const std::string directory = [] {
    struct stat st;
    std::string base = stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) ? "/dev/shm" : "/tmp";
    std::string path = base + "/fbcdc-bench-" + std::to_string(getpid()) + "/";
    mkdir(path.c_str(), 0700);
    return path;
  }();
  return directory;
}

long residentKiB() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

FileWriter::FileWriter(const std::string& path) {
  std::snprintf(fileName, sizeof fileName, "%s", path.c_str());
}

void FileWriter::finish() {
  flushBlock();
  if (fd >= 0) ::close(fd);
  fd = -1;
}

PluginUnderTest::PluginUnderTest() {
  const std::string config = scratchDirectory() + "plugin.conf";
  writeFile(config, "OutputDirectory = " + scratchDirectory() + "logs\n");
  Firebird::IConfig* c = loadConfig(config);
  plugin = getReplPlugin(status, 30, c);
  c->release();
  if (!plugin) {
    std::fprintf(stderr, "plugin: %s\n", status.text().c_str());
    std::abort();
  }
}

LogFile publishInserts(std::uint64_t number, std::int64_t events) {
  PluginUnderTest& p = pluginUnderTest();
  LiteralRow row("ORDERS");
  fillOrderRow(row, OrderValues());
  Firebird::IReplTransaction* t = p.plugin->startTransaction(p.status, number);
  for (std::int64_t i = 0; i < events; ++i) t->insertRecord(p.status, nullptr, nullptr, &row);
  t->commit(p.status);
  t->dispose();
  for (const LogFile& log : LogDirectory::list(scratchDirectory() + "logs"))
    if (log.parsed.transaction == number) return log;
  std::abort();
}

std::string commandPath() {
  const std::string plugin = FBCDC_PLUGIN_PATH;
  return plugin.substr(0, plugin.rfind('/') + 1) + "tools/fbcdc";
}

int runDump(const std::string& log, const std::string& out) {
  const pid_t pid = spawn({commandPath(), "dump", "--format", "json", log}, out, "/dev/null");
  return pid < 0 ? -1 : waitFor(pid);
}

PluginUnderTest& pluginUnderTest() {
  static PluginUnderTest p;
  return p;
}

int runAndReport(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  printTable(reporter.figures());
  return removeScratchDirectory();
}

int removeScratchDirectory() {
  const std::string rm = "rm -rf '" + scratchDirectory() + "'";
  return std::system(rm.c_str()) == 0 ? 0 : 1;
}

}  // namespace bench
