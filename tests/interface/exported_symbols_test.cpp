// The library exports what the public header declares, and nothing else.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

std::string WithoutComments(std::string text) {
  for (std::size_t begin = text.find("/*"); begin != std::string::npos; begin = text.find("/*", begin)) {
    text.erase(begin, text.find("*/", begin) + 2 - begin);
  }
  return text;
}

std::set<std::string> FunctionsOf(const char* header) {
  std::stringstream text;
  text << std::ifstream(header).rdbuf();
  const std::string code = WithoutComments(text.str());
  const std::regex declaration(R"((?:^|\n)[a-z][a-z ]*[ *]+(\w+)\([^;{]*\);)");
  std::set<std::string> names;
  for (std::sregex_iterator match(code.begin(), code.end(), declaration), end; match != end; ++match) {
    names.insert((*match)[1]);
  }
  return names;
}

std::set<std::string> DynamicSymbolsOf(const char* library) {
  std::string command = KAVO_NM " -D --defined-only ";
  command += library;
  std::set<std::string> names;
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    return names;
  }
  std::array<char, 1024> line{};
  while (std::fgets(line.data(), line.size(), pipe) != nullptr) {
    std::string address;
    std::string kind;
    std::string name;
    std::istringstream(line.data()) >> address >> kind >> name;
    names.insert(name);
  }
  EXPECT_EQ(0, pclose(pipe));
  return names;
}

TEST(ExportedSymbols, AreTheFunctionsOfThePublicHeader) {
  const std::set<std::string> declared = FunctionsOf(KAVO_HEADER);
  EXPECT_TRUE(declared.contains("KavoLookup")) << "the header was not understood";
  EXPECT_EQ(declared, DynamicSymbolsOf(KAVO_LIBRARY));
}

}  // namespace
