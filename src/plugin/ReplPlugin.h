// The plugin object that the server drives: it holds the output directory and starts one change
// log per replicated transaction.
#pragma once

#include <cstdint>

#include "IReplPlugin.h"

class ReplPlugin final : public Firebird::IReplPlugin {
 public:
  static constexpr int kOutputDirectorySize = 4096;

  // Reads OutputDirectory (and the optional DurableLogs) from config and creates that directory.
  // A failure is reported into status first and then thrown; the caller gives up the storage.
  ReplPlugin(Firebird::IStatus* status, Firebird::IConfig* config);
  // Closes the output directory's descriptor of durable logs.
  virtual ~ReplPlugin();

  ReplPlugin(const ReplPlugin&) = delete;
  ReplPlugin& operator=(const ReplPlugin&) = delete;

  void dispose() override;
  Firebird::IReplTransaction* startTransaction(Firebird::IStatus* status,
                                               std::uint64_t number) override;

  const char* getOutputDirectory() const { return outputDirectory; }

  // Copies text into out (kOutputDirectorySize bytes), appending "/" unless it already ends in a
  // separator. Returns null, or the fixed failure text when the result would not fit.
  static const char* normalizeOutputDirectory(const char* text, char* out);

 private:
  // Written only during construction; every transaction reads it up to its own dispose, so the
  // plugin must outlive the transactions it started.
  char outputDirectory[kOutputDirectorySize];
  // With DurableLogs = true, the output directory opened for syncing after each publishing
  // rename; -1 otherwise.
  int directoryFd = -1;
};
