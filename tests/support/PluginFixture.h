// A plugin started from a real configuration file in a temporary directory, and helpers to record
// one transaction and look at the stream it published.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "IReplPlugin.h"
#include "PosixFaults.h"
#include "ReplTransaction.h"
#include "TestFiles.h"

// Appends the bytes of a statement record for sql (may be null) and number to stream.
void appendStatement(Bytes& stream, const char* sql, std::int64_t number);

class PluginFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  ReplTransaction* begin(std::uint64_t number = 1);

  // Runs body in a fresh transaction, commits, disposes, and returns the published stream between
  // header and commit marker, after checking the whole file against its container. Empty when
  // nothing was published.
  Bytes recordStream(const std::function<void(ReplTransaction*)>& body);

  // The one published file's path ("" when none), removed by the next call.
  std::string publishedLog();

  PosixFaults::Scope faults;
  TempDir dir;
  FbStatus status;
  Firebird::IReplPlugin* plugin = nullptr;
  std::string logs;
};
