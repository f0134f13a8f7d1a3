#include "CaptureDriver.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Database.h"
#include "IReplPlugin.h"
#include "IReplTransaction.h"
#include "LogDirectory.h"
#include "Workload.h"

namespace {

using Clock = std::chrono::steady_clock;
using GetReplPlugin = Firebird::IReplPlugin* (*)(Firebird::IStatus*, int, Firebird::IConfig*);

std::string statusText(Firebird::IStatus* status) {
  char text[2048];
  Firebird::fb_get_master_interface()->getUtilInterface()->formatStatus(text, sizeof text, status);
  return text;
}

// The number the server gives a transaction.
std::uint64_t transactionNumber(Database& db) {
  const unsigned char items[] = {isc_info_tra_id, isc_info_end};
  unsigned char buffer[32] = {0};
  db.transaction()->getInfo(db.status(), sizeof items, items, sizeof buffer, buffer);
  if (buffer[0] != isc_info_tra_id) throw std::runtime_error("no transaction number");
  const int length = buffer[1] | buffer[2] << 8;
  std::uint64_t number = 0;
  for (int i = 0; i < length && i < 8; ++i)
    number |= static_cast<std::uint64_t>(buffer[3 + i]) << (8 * i);
  return number;
}

// Hands a transaction's changes to the plugin, timing every call into it.
class PluginTransaction : public Workload::Listener {
 public:
  PluginTransaction(Firebird::IReplTransaction* t, Database& db, Firebird::IStatus* status)
      : t_(t), db_(db), status_(status) {}

  void inserted(Firebird::IReplRecord* row) override {
    check(
        timed([&] { return t_->insertRecord(status_, db_.attachment(), db_.transaction(), row); }));
    ++rows;
  }
  void updated(Firebird::IReplRecord* oldRow, Firebird::IReplRecord* newRow) override {
    check(timed([&] {
      return t_->updateRecord(status_, db_.attachment(), db_.transaction(), oldRow, newRow);
    }));
    ++rows;
  }
  void deleted(Firebird::IReplRecord* row) override {
    check(
        timed([&] { return t_->deleteRecord(status_, db_.attachment(), db_.transaction(), row); }));
    ++rows;
  }
  void statement(const std::string& sql, std::int64_t number) override {
    check(timed([&] { return t_->executeSql(status_, sql.c_str(), number); }));
    ++statements;
  }
  void startSavepoint(int number) override {
    timed([&] {
      t_->startSavepoint(status_, number);
      return 0;
    });
    if (status_->getState() & Firebird::IStatus::STATE_ERRORS) check(1);
    savepoints_.push_back({number, rows, statements});
  }
  void releaseSavepoint(int number) override {
    timed([&] {
      t_->releaseSavepoint(status_, number);
      return 0;
    });
    while (!savepoints_.empty() && savepoints_.back().number >= number) savepoints_.pop_back();
  }
  void rollbackSavepoint(int number) override {
    timed([&] {
      t_->rollbackSavepoint(number);
      return 0;
    });
    // Only what reaches the published log counts: the rolled-back changes do not.
    while (!savepoints_.empty() && savepoints_.back().number > number) savepoints_.pop_back();
    if (!savepoints_.empty()) {
      rows = savepoints_.back().rows;
      statements = savepoints_.back().statements;
      savepoints_.pop_back();
    }
  }

  template <typename Call>
  std::int32_t timed(Call call) {
    const auto start = Clock::now();
    const std::int32_t result = call();
    pluginTime += Clock::now() - start;
    return result;
  }
  void check(std::int32_t result) {
    if (result != 0) throw std::runtime_error("the plugin failed: " + statusText(status_));
  }

  std::uint64_t rows = 0;
  std::uint64_t statements = 0;
  Clock::duration pluginTime{};

 private:
  Firebird::IReplTransaction* t_;
  struct Savepoint {
    int number;
    std::uint64_t rows, statements;
  };
  Database& db_;
  Firebird::IStatus* status_;
  std::vector<Savepoint> savepoints_;
};

// The bytes of the published logs in a directory.
std::uint64_t logBytes(const std::string& directory) {
  std::uint64_t total = 0;
  if (directory.empty()) return 0;
  try {
    for (const LogFile& log : LogDirectory::list(directory)) {
      struct stat st;
      if (::stat(log.path.c_str(), &st) == 0) total += static_cast<std::uint64_t>(st.st_size);
    }
  } catch (const std::runtime_error&) {
    // Not there yet: nothing published.
  }
  return total;
}

}  // namespace

CaptureSummary CaptureDriver::run() {
  void* library = ::dlopen(options_.pluginLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) throw std::runtime_error(std::string("cannot load the plugin: ") + ::dlerror());
  auto entry = reinterpret_cast<GetReplPlugin>(::dlsym(library, "getReplPlugin"));
  if (!entry) throw std::runtime_error("the plugin library has no getReplPlugin");

  Firebird::IMaster* master = Firebird::fb_get_master_interface();
  Firebird::IStatus* status = master->getStatus();
  Firebird::IReplPlugin* plugin = nullptr;
  {
    Firebird::CheckStatusWrapper wrapper(status);
    Firebird::IConfig* config =
        master->getPluginManager()->getConfig(&wrapper, options_.configFile.c_str());
    if (!config) {
      status->dispose();
      throw std::runtime_error("Firebird cannot read the configuration " + options_.configFile);
    }
    // The figures of published logs need the directory, which the configuration names.
    if (options_.outputDirectory.empty()) {
      if (Firebird::IConfigEntry* e = config->find(&wrapper, "OutputDirectory")) {
        if (e->getValue()) options_.outputDirectory = e->getValue();
        e->release();
      }
    }
    plugin = entry(status, 30, config);
    config->release();
  }
  if (!plugin) {
    const std::string text = statusText(status);
    status->dispose();
    throw std::runtime_error("getReplPlugin failed: " + text);
  }
  status->dispose();

  {
    bool created = false;
    Database db(options_.database, true, &created);
    if (created) Workload::createSchema(db);
  }

  const std::uint64_t bytesBefore = logBytes(options_.outputDirectory);
  CaptureSummary summary;
  std::mutex mutex;
  std::string failure;
  std::atomic<std::uint64_t> done{0};
  std::atomic<bool> stop{false};
  const auto start = Clock::now();
  auto work = [&](int thread) {
    const auto threadStart = Clock::now();
    CaptureSummary mine;
    Clock::duration pluginTime{};
    try {
      Database db(options_.database, false);
      Workload::Options w;
      w.seed = options_.seed;
      w.thread = thread;
      w.maxBlob = options_.maxBlob;
      Workload workload(db, w);
      Firebird::IStatus* st = master->getStatus();
      for (std::uint64_t index = static_cast<std::uint64_t>(thread);
           index < options_.transactions && !stop;
           index += static_cast<std::uint64_t>(options_.threads)) {
        const std::uint64_t number = transactionNumber(db);
        st->init();
        const auto begun = Clock::now();
        Firebird::IReplTransaction* t = plugin->startTransaction(st, number);
        pluginTime += Clock::now() - begun;
        if (!t) throw std::runtime_error("startTransaction failed: " + statusText(st));
        PluginTransaction listener(t, db, st);
        try {
          const bool commit = workload.run(index, listener);
          if (commit) {
            st->init();
            listener.check(listener.timed([&] { return t->commit(st); }));
            db.commit();
            ++mine.committed;
            mine.rows += listener.rows;
            mine.statements += listener.statements;
          } else {
            db.rollback();
            ++mine.rolledBack;
          }
          listener.timed([&] {
            t->dispose();
            return 0;
          });
        } catch (...) {
          db.rollback();
          t->dispose();
          throw;
        }
        pluginTime += listener.pluginTime;
        ++done;
      }
      st->dispose();
    } catch (const Firebird::FbException& e) {
      std::lock_guard<std::mutex> lock(mutex);
      failure = "thread " + std::to_string(thread) + ": " + Database::describe(e);
      stop = true;
    } catch (const std::exception& e) {
      std::lock_guard<std::mutex> lock(mutex);
      failure = "thread " + std::to_string(thread) + ": " + e.what();
      stop = true;
    }
    std::lock_guard<std::mutex> lock(mutex);
    summary.committed += mine.committed;
    summary.rolledBack += mine.rolledBack;
    summary.rows += mine.rows;
    summary.statements += mine.statements;
    summary.pluginSeconds += std::chrono::duration<double>(pluginTime).count();
    summary.workSeconds += std::chrono::duration<double>(Clock::now() - threadStart).count();
  };

  std::vector<std::thread> threads;
  for (int i = 0; i < options_.threads; ++i) threads.emplace_back(work, i);
  while (options_.progress && done < options_.transactions && !stop) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const double s = std::chrono::duration<double>(Clock::now() - start).count();
    std::fprintf(stderr, "\rcapture: %llu/%llu transactions, %.0f/s, %.1f MiB of log\033[K",
                 static_cast<unsigned long long>(done.load()),
                 static_cast<unsigned long long>(options_.transactions), done / s,
                 static_cast<double>(logBytes(options_.outputDirectory) - bytesBefore) / 1048576);
  }
  for (std::thread& t : threads) t.join();
  if (options_.progress) std::fprintf(stderr, "\r\033[K");
  summary.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  summary.logBytes = logBytes(options_.outputDirectory) - bytesBefore;
  plugin->dispose();
  ::dlclose(library);
  if (!failure.empty()) throw std::runtime_error(failure);
  return summary;
}
