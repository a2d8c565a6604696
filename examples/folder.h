// A folder for a program's files: one that the user names, or one of its own that goes when the program does.
#pragma once

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

namespace Examples {

class Folder {
 public:
  // Empty: one of its own.
  explicit Folder(const std::string& given) : m_path(given), m_own(given.empty()) {
    if (m_own) {
      m_path = (std::filesystem::temp_directory_path() / "kavo-example-XXXXXX").string();
      if (::mkdtemp(m_path.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), m_path);
      }
    }
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    if (m_own) {
      std::error_code ignored;
      std::filesystem::remove_all(m_path, ignored);
    }
  }
  const char* Path() const { return m_path.c_str(); }

 private:
  std::string m_path;
  const bool m_own;
};

}  // namespace Examples
