// A folder of a test's own, for the length of the test.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

class OwnFolder {
 public:
  OwnFolder() : m_path(testing::TempDir() + "kavo-test-XXXXXX") {
    if (::mkdtemp(m_path.data()) == nullptr) {
      throw std::runtime_error("no folder for the test's files");
    }
  }
  OwnFolder(const OwnFolder&) = delete;
  OwnFolder& operator=(const OwnFolder&) = delete;
  ~OwnFolder() { std::filesystem::remove_all(m_path); }

  const std::string& Path() const { return m_path; }
  std::string Path(const std::string& name) const { return m_path + "/" + name; }

  // Returns its path.
  std::string Write(const std::string& name, const std::string& bytes) const {
    std::ofstream stream(Path(name), std::ios::binary);
    EXPECT_TRUE((stream << bytes).flush().good()) << name;
    return Path(name);
  }
  std::string Read(const std::string& name) const {
    std::ifstream stream(Path(name), std::ios::binary);
    EXPECT_TRUE(stream.good()) << name;
    return {std::istreambuf_iterator<char>(stream), {}};
  }

 private:
  std::string m_path;
};
