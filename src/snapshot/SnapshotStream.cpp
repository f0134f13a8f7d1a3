#include "SnapshotStream.h"

#include <sys/stat.h>

#include <cctype>
#include <stdexcept>

#include "LogDecoder.h"
#include "LogName.h"
#include "SnapshotName.h"

// Passes on the events the snapshot does not contain; begins the log at the first of them.
class SnapshotStream::Filter : public EventSink {
 public:
  Filter(EventSink& out, const SnapshotStream& stream, std::uint64_t transaction)
      : out_(out), stream_(stream), transaction_(transaction) {}

  void beginLog(const LogInfo& log) override { info_ = log; }
  void event(const ChangeEvent& e) override {
    const bool contained = e.isRowChange() ? stream_.contains(e.relation, transaction_)
                                           : stream_.containsStatement(e.sqlText, transaction_);
    if (contained) return;
    if (!begun_) {
      out_.beginLog(info_);
      begun_ = true;
    }
    out_.event(e);
  }
  void endLog(const ChangeEvent& end) override {
    if (begun_) out_.endLog(end);
  }

 private:
  EventSink& out_;
  const SnapshotStream& stream_;
  std::uint64_t transaction_;
  LogInfo info_;
  bool begun_ = false;
};

SnapshotStream::SnapshotStream(std::string dir) : dir_(std::move(dir)) {
  auto m = SnapshotManifest::load(dir_);
  if (!m) throw std::runtime_error(dir_ + ": no snapshot there (no manifest)");
  if (!m->complete)
    throw std::runtime_error(dir_ + ": the snapshot is not complete; run fbcdc snapshot again");
  manifest_ = std::move(*m);
  files_ = manifest_.chunkFiles(dir_);
  if (!files_.empty()) {
    // The snapshot's last row: the number of rows of the last file, less one.
    LogDecoder decoder;
    decoder.open(files_.back());
    while (decoder.next().kind != ChangeEvent::Kind::kEnd) ++lastRow_;
  }
}

void SnapshotStream::sendRows(EventSink& sink, SnapshotPosition& position,
                              const std::function<void(const SnapshotPosition&)>& before,
                              const std::function<void(const SnapshotPosition&)>& done) {
  for (std::size_t i = position.files; i < files_.size(); ++i) {
    const LogFile file = fileOf(files_[i]);
    LogInfo info = EventSink::infoOf(file);
    info.snapshot = true;
    if (i + 1 == files_.size()) info.lastRow = lastRow_;
    SnapshotPosition after = position;
    after.files = static_cast<std::uint32_t>(i + 1);
    if (before) before(after);
    sink.send(file, info);
    position = after;
    if (done) done(position);
  }
}

void SnapshotStream::sendLog(EventSink& sink, const LogFile& log) {
  Filter filter(sink, *this, log.parsed.transaction);
  filter.send(log, EventSink::infoOf(log));
}

LogFile SnapshotStream::fileOf(const std::string& path) {
  LogFile log;
  log.path = path;
  log.name = LogName::baseName(path);
  log.parsed.published = true;
  SnapshotName name;
  if (SnapshotName::parse(path, name)) log.parsed.transaction = name.boundary;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) {
    log.parsed.time = static_cast<std::int64_t>(st.st_mtime);
    log.publishedAt = log.parsed.time * 1000000000;
  }
  return log;
}

bool SnapshotStream::containsStatement(std::string_view sql, std::uint64_t transaction) const {
  const std::string table = targetOf(sql);
  if (!table.empty()) return manifest_.contains(table, transaction);
  // Of a statement that names no table, the rows of every table read show the effect only when
  // it came before all of them.
  bool any = false;
  for (const auto& t : manifest_.tables) {
    if (!t.done()) continue;
    if (!manifest_.boundaryOf(t).contains(transaction)) return false;
    any = true;
  }
  return any;
}

std::string SnapshotStream::targetOf(std::string_view sql) {
  std::size_t at = 0;
  auto blanks = [&] {
    while (at < sql.size() && std::isspace(static_cast<unsigned char>(sql[at]))) ++at;
  };
  // The next word, in upper case; quoted names are not words.
  auto word = [&] {
    blanks();
    std::string w;
    while (at < sql.size() &&
           (std::isalnum(static_cast<unsigned char>(sql[at])) || sql[at] == '_' || sql[at] == '$'))
      w += static_cast<char>(std::toupper(static_cast<unsigned char>(sql[at++])));
    return w;
  };
  const std::string first = word();
  bool named = false;
  if (first == "UPDATE") {
    const std::size_t back = at;
    if (word() == "OR" && word() == "INSERT" && word() == "INTO") {
      named = true;
    } else {
      at = back;
      named = true;
    }
  } else if (first == "DELETE") {
    named = word() == "FROM";
  } else if (first == "INSERT" || first == "MERGE") {
    named = word() == "INTO";
  }
  if (!named) return "";
  blanks();
  if (at < sql.size() && sql[at] == '"') {
    // A quoted name as it is, a doubled quote standing for one.
    std::string name;
    for (++at; at < sql.size(); ++at) {
      if (sql[at] == '"') {
        if (at + 1 < sql.size() && sql[at + 1] == '"') {
          name += '"';
          ++at;
          continue;
        }
        return name;
      }
      name += sql[at];
    }
    return "";
  }
  return word();
}
