#include "SnapshotManifest.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "SnapshotName.h"

namespace {

constexpr const char* kMagic = "fbcdc-snapshot 1";

std::vector<std::string> split(const std::string& line) {
  std::vector<std::string> parts;
  std::size_t at = 0;
  for (;;) {
    const std::size_t tab = line.find('\t', at);
    parts.push_back(line.substr(at, tab - at));
    if (tab == std::string::npos) return parts;
    at = tab + 1;
  }
}

std::uint64_t number(const std::string& text) {
  if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos)
    throw std::runtime_error("snapshot manifest: \"" + text + "\" is not a number");
  return std::stoull(text);
}

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

std::string SnapshotManifest::text() const {
  std::string out = std::string(kMagic) + "\n";
  out += "database\t" + database + "\n";
  for (const auto& [number, run] : runs)
    out += "boundary\t" + run.boundary.text() + "\t" + std::to_string(run.pauseMicros) + "\t" +
           std::to_string(run.drainMicros) + "\n";
  for (const Table& t : tables)
    out += "table\t" + t.name + "\t" + std::to_string(t.boundary) + "\t" +
           std::to_string(t.chunks) + "\t" + std::to_string(t.rows) + "\t" +
           std::to_string(t.bytes) + "\n";
  if (complete) out += "complete\n";
  return out;
}

SnapshotManifest SnapshotManifest::parse(const std::string& text) {
  SnapshotManifest m;
  std::istringstream in(text);
  std::string line;
  if (!std::getline(in, line) || line != kMagic)
    throw std::runtime_error("not a snapshot manifest (its first line is not \"" +
                             std::string(kMagic) + "\")");
  while (std::getline(in, line)) {
    if (m.complete) throw std::runtime_error("snapshot manifest: a line after \"complete\"");
    const std::vector<std::string> p = split(line);
    if (p[0] == "database" && p.size() == 2) {
      m.database = p[1];
    } else if (p[0] == "boundary" && p.size() == 4) {
      Run run;
      run.boundary = SnapshotBoundary::parse(p[1]);
      run.pauseMicros = static_cast<std::int64_t>(number(p[2]));
      run.drainMicros = static_cast<std::int64_t>(number(p[3]));
      m.runs[run.boundary.transaction()] = run;
    } else if (p[0] == "table" && p.size() == 6 && !p[1].empty()) {
      Table t;
      t.name = p[1];
      t.boundary = number(p[2]);
      t.chunks = static_cast<std::uint32_t>(number(p[3]));
      t.rows = number(p[4]);
      t.bytes = number(p[5]);
      if (t.done() && !m.runs.count(t.boundary))
        throw std::runtime_error("snapshot manifest: table " + t.name +
                                 " names a run without a boundary line");
      m.tables.push_back(std::move(t));
    } else if (line == "complete") {
      m.complete = true;
    } else {
      throw std::runtime_error("snapshot manifest: unknown line \"" + line + "\"");
    }
  }
  for (const Table& t : m.tables)
    if (m.complete && !t.done())
      throw std::runtime_error("snapshot manifest: complete, but table " + t.name + " is not read");
  return m;
}

std::optional<SnapshotManifest> SnapshotManifest::load(const std::string& dir) {
  const std::string path = dir + "/" + kFileName;
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (errno == ENOENT) return std::nullopt;
    fail("cannot read " + path);
  }
  std::ostringstream text;
  text << in.rdbuf();
  try {
    return parse(text.str());
  } catch (const std::runtime_error& e) {
    throw std::runtime_error(path + ": " + e.what());
  }
}

void SnapshotManifest::store(const std::string& dir) const {
  const std::string path = dir + "/" + kFileName;
  const std::string temporary = path + ".tmp";
  const std::string body = text();
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) fail("cannot create " + temporary);
  std::size_t done = 0;
  while (done < body.size()) {
    const ssize_t n = ::write(fd, body.data() + done, body.size() - done);
    if (n < 0) {
      const int saved = errno;
      ::close(fd);
      errno = saved;
      fail("cannot write " + temporary);
    }
    done += static_cast<std::size_t>(n);
  }
  if (::fsync(fd) != 0) {
    const int saved = errno;
    ::close(fd);
    errno = saved;
    fail("cannot sync " + temporary);
  }
  ::close(fd);
  if (::rename(temporary.c_str(), path.c_str()) != 0) fail("cannot rename " + temporary);
  const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (dirFd < 0) fail("cannot open " + dir);
  const int synced = ::fsync(dirFd);
  const int saved = errno;
  ::close(dirFd);
  errno = saved;
  if (synced != 0) fail("cannot sync " + dir);
}

const SnapshotManifest::Table* SnapshotManifest::find(const std::string& table) const {
  for (const Table& t : tables)
    if (t.name == table) return &t;
  return nullptr;
}

const SnapshotBoundary& SnapshotManifest::boundaryOf(const Table& table) const {
  return runs.at(table.boundary).boundary;
}

bool SnapshotManifest::contains(const std::string& table, std::uint64_t t) const {
  const Table* found = find(table);
  return found && found->done() && boundaryOf(*found).contains(t);
}

std::vector<std::string> SnapshotManifest::chunkFiles(const std::string& dir) const {
  std::vector<std::string> files;
  for (std::size_t i = 0; i < tables.size(); ++i) {
    if (!tables[i].done()) continue;
    for (std::uint32_t c = 0; c < tables[i].chunks; ++c) {
      SnapshotName name{tables[i].boundary, static_cast<std::uint32_t>(i), c};
      files.push_back(dir + "/" + name.text());
    }
  }
  return files;
}

std::uint64_t SnapshotManifest::rows() const {
  std::uint64_t n = 0;
  for (const Table& t : tables) n += t.rows;
  return n;
}
