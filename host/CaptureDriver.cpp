#include "CaptureDriver.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Database.h"
#include "IReplPlugin.h"
#include "IReplTransaction.h"
#include "LogDirectory.h"
#include "PluginCallTimes.h"
#include "TimedAttachment.h"
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
std::uint64_t transactionNumber(Database& db, Firebird::ITransaction* transaction) {
  const unsigned char items[] = {isc_info_tra_id, isc_info_end};
  unsigned char buffer[32] = {0};
  transaction->getInfo(db.status(), sizeof items, items, sizeof buffer, buffer);
  if (buffer[0] != isc_info_tra_id) throw std::runtime_error("no transaction number");
  const auto length = static_cast<std::uint16_t>(isc_portable_integer(buffer + 1, 2));
  return static_cast<std::uint64_t>(
      isc_portable_integer(buffer + 3, static_cast<short>(std::min<std::uint16_t>(length, 8))));
}

// Hands a transaction's changes to the plugin, timing every call into it; the plugin reads blobs
// through an attachment that times them as server calls.
class PluginTransaction : public Workload::Listener {
 public:
  PluginTransaction(Firebird::IReplTransaction* t, Firebird::IAttachment* attachment,
                    Firebird::ITransaction* transaction, Firebird::IStatus* status)
      : t_(t), attachment_(attachment), transaction_(transaction), status_(status) {}

  void inserted(Firebird::IReplRecord* row) override {
    check(timed([&] { return t_->insertRecord(status_, &attachment_, transaction_, row); }));
    ++rows;
  }
  void updated(Firebird::IReplRecord* oldRow, Firebird::IReplRecord* newRow) override {
    check(timed(
        [&] { return t_->updateRecord(status_, &attachment_, transaction_, oldRow, newRow); }));
    ++rows;
  }
  void deleted(Firebird::IReplRecord* row) override {
    check(timed([&] { return t_->deleteRecord(status_, &attachment_, transaction_, row); }));
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
    PluginCallTimes::InPlugin inside;
    return call();
  }
  void check(std::int32_t result) {
    if (result != 0) throw std::runtime_error("the plugin failed: " + statusText(status_));
  }

  std::uint64_t rows = 0;
  std::uint64_t statements = 0;

 private:
  Firebird::IReplTransaction* t_;
  struct Savepoint {
    int number;
    std::uint64_t rows, statements;
  };
  TimedAttachment attachment_;
  Firebird::ITransaction* transaction_;
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

// A committed transaction: its number, the place of its database commit among all, and the hot
// rows it changed.
struct Commit {
  std::uint64_t transaction;
  std::uint64_t order;
  std::vector<std::int64_t> hotRows;
};

// Compares the publication order of the logs in directory with the commit order of commits,
// filling the summary's order figures. Logs of other transactions are left out.
void compareOrders(const std::string& directory, const std::vector<Commit>& commits,
                   CaptureSummary& summary) {
  std::map<std::uint64_t, const Commit*> byNumber;
  for (const Commit& c : commits) byNumber[c.transaction] = &c;
  std::vector<std::pair<const Commit*, std::int64_t>> published;  // and its publication time
  for (const LogFile& log : LogDirectory::list(directory)) {
    auto found = byNumber.find(log.parsed.transaction);
    if (found != byNumber.end()) published.emplace_back(found->second, log.publishedAt);
  }
  summary.orderedLogs = published.size();
  std::map<std::int64_t, std::uint64_t> lastOnRow;  // each hot row's last log's commit order
  for (std::size_t i = 0; i < published.size(); ++i) {
    const Commit& c = *published[i].first;
    if (i > 0 && published[i - 1].first->order > c.order) {
      ++summary.inverted;
      summary.invertedSameTime += published[i - 1].second == published[i].second;
    }
    for (const std::int64_t row : c.hotRows) {
      auto last = lastOnRow.find(row);
      if (last != lastOnRow.end() && last->second > c.order) ++summary.hotInverted;
      lastOnRow[row] = c.order;
    }
  }
  // In commit order, from the last: each log against the earliest published of those committed
  // after it.
  std::sort(published.begin(), published.end(),
            [](const auto& a, const auto& b) { return a.first->order < b.first->order; });
  std::int64_t earliestLater = std::numeric_limits<std::int64_t>::max();
  for (auto p = published.rbegin(); p != published.rend(); ++p) {
    if (earliestLater != std::numeric_limits<std::int64_t>::max())
      summary.latestBy = std::max(summary.latestBy, p->second - earliestLater);
    earliestLater = std::min(earliestLater, p->second);
  }
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

  const std::uint64_t bytesBefore = logBytes(options_.outputDirectory);
  CaptureSummary summary;
  std::mutex mutex;
  std::string failure;
  std::atomic<std::uint64_t> done{0};
  std::atomic<std::uint64_t> commitOrder{0};
  std::atomic<bool> stop{false};
  std::vector<Commit> commits;
  auto fail = [&](const std::string& where, const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    if (failure.empty()) failure = where + what;
    stop = true;
  };

  // One transaction through the plugin and the database; body makes its changes and says whether
  // to commit. A transaction ended by a lock conflict is rolled back and counted, like one rolled
  // back on purpose; any other failure is thrown.
  auto play = [&](Database& db, Workload& workload, bool hot, Firebird::IStatus* st,
                  CaptureSummary& mine, std::vector<Commit>& committed,
                  const std::function<bool(Workload::Listener&)>& body) {
    workload.begin(hot);
    const std::uint64_t number = transactionNumber(db, workload.transaction());
    st->init();
    Firebird::IReplTransaction* t;
    {
      PluginCallTimes::InPlugin inside;
      t = plugin->startTransaction(st, number);
    }
    if (!t) {
      workload.rollback();
      throw std::runtime_error("startTransaction failed: " + statusText(st));
    }
    PluginTransaction listener(t, db.attachment(), workload.transaction(), st);
    auto abandon = [&] {
      try {
        workload.rollback();
      } catch (const Firebird::FbException&) {
        // The failure that counts is the one that abandons the transaction.
      }
      t->dispose();
    };
    try {
      if (body(listener)) {
        st->init();
        listener.check(listener.timed([&] { return t->commit(st); }));
        workload.commit();
        committed.push_back({number, commitOrder++, workload.hotRowsChanged()});
        ++mine.committed;
        mine.rows += listener.rows;
        mine.statements += listener.statements;
      } else {
        workload.rollback();
        ++mine.rolledBack;
      }
      listener.timed([&] {
        t->dispose();
        return 0;
      });
    } catch (const Firebird::FbException& e) {
      abandon();
      if (!Workload::isConflict(e)) throw;
      ++mine.rolledBack;
      ++mine.conflicts;
    } catch (...) {
      abandon();
      throw;
    }
  };

  std::int64_t keyBase = 0;
  try {
    // A new database gets the schema, an existing one the tables it lacks.
    Database db(options_.database, options_.credentials, true);
    Workload::createSchema(db);
    keyBase = Workload::reserveKeys(db, options_.threads);
    if (options_.hotRows > 0) {
      // The hot rows that are missing, inserted before the threads start.
      Workload::Options w;
      w.seed = options_.seed;
      w.maxBlob = options_.maxBlob;
      w.hotRows = options_.hotRows;
      Workload workload(db, w);
      Firebird::IStatus* st = master->getStatus();
      CaptureSummary setup;
      try {
        play(db, workload, false, st, setup, commits,
             [&](Workload::Listener& l) { return workload.insertHotRows(l) > 0; });
      } catch (...) {
        st->dispose();
        throw;
      }
      st->dispose();
      summary.committed += setup.committed;
      summary.rows += setup.rows;
    }
  } catch (const Firebird::FbException& e) {
    fail("", Database::describe(e));
  } catch (const std::exception& e) {
    fail("", e.what());
  }

  const auto start = Clock::now();
  auto work = [&](int thread) {
    const auto threadStart = Clock::now();
    CaptureSummary mine;
    std::vector<Commit> committed;
    const std::string who = "thread " + std::to_string(thread) + ": ";
    try {
      Database db(options_.database, options_.credentials, false);
      Workload::Options w;
      w.seed = options_.seed;
      w.thread = thread;
      w.keyBase = keyBase + thread * Workload::kKeyRange;
      w.maxBlob = options_.maxBlob;
      w.hotRows = options_.hotRows;
      Workload workload(db, w);
      Firebird::IStatus* st = master->getStatus();
      try {
        for (std::uint64_t index = static_cast<std::uint64_t>(thread);
             index < options_.transactions && !stop;
             index += static_cast<std::uint64_t>(options_.threads)) {
          play(db, workload, workload.isHot(index), st, mine, committed,
               [&](Workload::Listener& l) { return workload.run(index, l); });
          ++done;
        }
      } catch (...) {
        st->dispose();
        throw;
      }
      st->dispose();
    } catch (const Firebird::FbException& e) {
      fail(who, Database::describe(e));
    } catch (const std::exception& e) {
      fail(who, e.what());
    }
    std::lock_guard<std::mutex> lock(mutex);
    summary.committed += mine.committed;
    summary.rolledBack += mine.rolledBack;
    summary.conflicts += mine.conflicts;
    summary.rows += mine.rows;
    summary.statements += mine.statements;
    // Each worker is a thread of its own, so its totals are its calls alone.
    const PluginCallTimes::Totals times = PluginCallTimes::thisThread();
    summary.pluginSeconds += static_cast<double>(times.plugin) / 1e9;
    summary.serverSeconds += static_cast<double>(times.server) / 1e9;
    summary.fileSeconds += static_cast<double>(times.files) / 1e9;
    summary.workSeconds += std::chrono::duration<double>(Clock::now() - threadStart).count();
    commits.insert(commits.end(), committed.begin(), committed.end());
  };

  std::vector<std::thread> threads;
  const bool ready = failure.empty();
  for (int i = 0; i < options_.threads && ready; ++i) threads.emplace_back(work, i);
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
  summary.filesSeen = PluginCallTimes::filesSeen();
  summary.logBytes = logBytes(options_.outputDirectory) - bytesBefore;
  if (summary.logBytes > 0) {
    try {
      compareOrders(options_.outputDirectory, commits, summary);
    } catch (const std::runtime_error& e) {
      fail("", e.what());
    }
  }
  plugin->dispose();
  ::dlclose(library);
  if (!failure.empty()) throw std::runtime_error(failure);
  return summary;
}
