// A small file replaced atomically: the new text goes to "<path>.tmp", which is synced to disk and
// renamed over path, and then the directory is synced, so that after a crash or a power loss the
// file holds either the old or the new text, never a part of one.
//
// A position says which changes a consumer has taken; whoever may rewrite it makes the consumer
// skip or repeat changes. The file is its owner's alone (0600), whatever the umask, unless the
// owner of the file chooses a mode that others must read by (the prune mark, which every consumer
// of a directory reads).
#pragma once

#include <sys/types.h>

#include <string>

class CheckpointFile {
 public:
  explicit CheckpointFile(std::string path, mode_t mode = 0600)
      : path_(std::move(path)), mode_(mode) {}

  // The stored text; empty when the file does not exist. Throws std::runtime_error on failure.
  std::string load() const;
  // Replaces the text; throws std::runtime_error on failure, leaving the old text in place.
  void store(const std::string& text) const;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  mode_t mode_;
};
