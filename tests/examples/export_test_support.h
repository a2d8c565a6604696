// What the tests of incremental export share: a directory of their own, files as bytes, tables under fresh ids.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "incremental_export/kavo_table.h"
#include "incremental_export/library_log.h"
#include "incremental_export/snapshot_chain.h"
#include "incremental_export/snapshot_format.h"

namespace IncrementalExport {

using Bytes = std::vector<unsigned char>;

constexpr TableType BOTH_TYPES[] = {TableType::BASIC, TableType::FILTER};

class ExportTest : public testing::Test {
 protected:
  ExportTest() {
    std::string pattern = testing::TempDir() + "kavo-export-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("no directory for the test's files");
    }
    m_directory = pattern;
  }
  ~ExportTest() override { std::filesystem::remove_all(m_directory); }

  std::string Path(const std::string& name) const { return (m_directory / name).string(); }

  static unsigned NewTableId() {
    static std::atomic<unsigned> next{1};
    return next++;
  }

  static Bytes ReadFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    EXPECT_TRUE(stream.good()) << path;
    return Bytes(std::istreambuf_iterator<char>(stream), {});
  }

  static void WriteFile(const std::string& path, const Bytes& bytes) {
    std::ofstream stream(path, std::ios::binary);
    stream.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(stream.flush().good()) << path;
  }

  // The text of the SnapshotError that the action ends with.
  template <typename Action>
  static std::string ErrorOf(Action action) {
    try {
      action();
    } catch (const SnapshotError& error) {
      return error.what();
    }
    return "no error";
  }

  static std::string ErrorOfChain(const std::vector<std::string>& paths) {
    return ErrorOf([&paths] { SnapshotChain chain(paths); });
  }

 private:
  const LibraryLog m_log;
  std::filesystem::path m_directory;
};

}  // namespace IncrementalExport
