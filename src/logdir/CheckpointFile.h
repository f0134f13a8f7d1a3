// A small file replaced atomically: the new text goes to "<path>.tmp", which is synced to disk and
// renamed over path, and then the directory is synced, so that after a crash or a power loss the
// file holds either the old or the new text, never a part of one.
#pragma once

#include <string>

class CheckpointFile {
 public:
  explicit CheckpointFile(std::string path) : path_(std::move(path)) {}

  // The stored text; empty when the file does not exist. Throws std::runtime_error on failure.
  std::string load() const;
  // Replaces the text; throws std::runtime_error on failure, leaving the old text in place.
  void store(const std::string& text) const;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};
