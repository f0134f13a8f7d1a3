#include "CrashStates.h"

#include <fcntl.h>

#include <random>

namespace CrashStates {

using PosixFaults::Recorded;

std::vector<Op> resolve(const std::vector<Recorded>& calls) {
  std::vector<Op> ops;
  std::map<int, int> inodes;  // descriptor -> inode
  std::map<std::string, int> named;
  int next = 0;
  for (const Recorded& r : calls) {
    using namespace PosixFaults;
    Op op{r, -2, r.call == kWrite || r.call == kFtruncate64, r.call == kRename || r.call == kRemove,
          r.call == kFsync || r.call == kFdatasync};
    if (op.data || op.barrier) op.inode = inodes[r.fd];
    if (r.call == kRename) op.inode = named[r.path2] = named[r.path];
    if (r.call == kRemove) op.inode = named[r.path];
    if (r.call == kOpen && (r.offset & O_DIRECTORY)) {
      inodes[r.fd] = -1;
    } else if (r.call == kOpen && (r.offset & O_CREAT)) {
      op.inode = inodes[r.fd] = named[r.path] = next++;
      op.directory = true;
    } else if (r.call == kOpen) {
      inodes[r.fd] = named.count(r.path) ? named[r.path] : -2;
    }
    ops.push_back(op);
  }
  return ops;
}

Files rebuild(const std::vector<Op>& ops, std::size_t end, const std::vector<bool>& kept) {
  std::map<std::string, int> names;
  std::map<int, std::string> contents;
  for (std::size_t i = 0; i < end; ++i) {
    if (!kept[i]) continue;
    const Op& op = ops[i];
    const Recorded& r = op.call;
    if (r.call == PosixFaults::kOpen && op.directory) names[r.path] = op.inode;
    if (r.call == PosixFaults::kRename && names.count(r.path)) {
      names[r.path2] = names[r.path];
      names.erase(r.path);
    }
    if (r.call == PosixFaults::kRemove) names.erase(r.path);
    std::string& c = contents[op.inode];
    if (r.call == PosixFaults::kWrite) {
      const auto at = static_cast<std::size_t>(r.offset);
      if (c.size() < at + r.data.size()) c.resize(at + r.data.size(), '\0');
      c.replace(at, r.data.size(), r.data);
    }
    if (r.call == PosixFaults::kFtruncate64) c.resize(static_cast<std::size_t>(r.offset), '\0');
  }
  Files files;
  for (const auto& [name, inode] : names) files[name] = contents[inode];
  return files;
}

std::size_t forEach(const std::vector<Op>& ops, bool ordered, unsigned seed,
                    const std::function<void(std::size_t end, const Files& files)>& check) {
  std::mt19937 random(seed);
  std::size_t states = 0;
  for (std::size_t end = 0; end <= ops.size(); ++end) {
    // What a sync before the crash has made safe: data of a synced file, and every change of the
    // directory before a sync of the directory.
    std::vector<bool> safe(end, false);
    for (std::size_t j = 0; j < end; ++j) {
      if (!ops[j].barrier) continue;
      for (std::size_t i = 0; i < j; ++i)
        if (ops[j].inode == -1 ? ops[i].directory : ops[i].data && ops[i].inode == ops[j].inode)
          safe[i] = true;
    }
    std::vector<std::size_t> open;
    for (std::size_t i = 0; i < end; ++i)
      if (!safe[i] && (ops[i].data || ops[i].directory)) open.push_back(i);
    const std::size_t combinations =
        open.size() <= 10 ? (std::size_t{1} << open.size()) : std::size_t{1024};
    for (std::size_t k = 0; k < combinations; ++k) {
      std::vector<bool> kept(end, true);
      for (std::size_t b = 0; b < open.size(); ++b)
        kept[open[b]] = open.size() <= 10 ? (k >> b & 1) : random() % 2;
      if (ordered) {
        bool dropped = false;
        for (std::size_t i = 0; i < end; ++i) {
          if (!ops[i].directory) continue;
          if (dropped) kept[i] = safe[i];
          dropped = dropped || !kept[i];
        }
        for (std::size_t i = 0; i < end; ++i) {
          if (!kept[i] || !ops[i].directory || ops[i].call.call == PosixFaults::kOpen) continue;
          for (std::size_t w = 0; w < i; ++w)
            if (ops[w].data && ops[w].inode == ops[i].inode) kept[w] = true;
        }
      }
      ++states;
      check(end, rebuild(ops, end, kept));
    }
  }
  return states;
}

}  // namespace CrashStates
