// A plugin started from a real configuration file in a temporary directory, and helpers to record
// one transaction and look at the stream it published.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

#include "IReplPlugin.h"
#include "PosixFaults.h"
#include "ReplTransaction.h"
#include "TestFiles.h"

// Appends the bytes of a statement record for sql (may be null) and number to stream.
void appendStatement(Bytes& stream, const char* sql, std::int64_t number);

// Writes configText to path, reads it back through Firebird and calls the entry function.
Firebird::IReplPlugin* startPlugin(Firebird::IStatus* status, const std::string& path,
                                   const std::string& configText, int version = 30);

class PluginFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override {
    if (plugin) plugin->dispose();
  }

  ReplTransaction* begin(std::uint64_t number = 1);

  // Runs body in a fresh transaction, commits, disposes, checks the published file against its
  // container and returns its stream between header and commit marker (empty when none).
  Bytes recordStream(const std::function<void(ReplTransaction*)>& body);

  // The one published file's path ("" when none).
  std::string publishedLog() {
    const Strings names = listDirectory(logs);
    EXPECT_GE(1u, names.size());
    return names.empty() ? "" : logs + names[0];
  }
  // Removes every file of the output directory.
  void clearLogs() {
    for (const std::string& name : listDirectory(logs)) ::remove((logs + name).c_str());
  }

  PosixFaults::Scope faults;
  TempDir dir;
  FbStatus status;
  Firebird::IReplPlugin* plugin = nullptr;
  std::string logs;
};
