// The library exports what the public header declares, and nothing else.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <string>

namespace {

std::string Read(std::FILE* file) {
  std::string text;
  for (int c = 0; file != nullptr && (c = std::fgetc(file)) != EOF;) {
    text += static_cast<char>(c);
  }
  return text;
}

std::string WithoutComments(std::string text) {
  for (std::size_t begin = text.find("/*"); begin != std::string::npos; begin = text.find("/*", begin)) {
    text.erase(begin, text.find("*/", begin) + 2 - begin);
  }
  return text;
}

std::set<std::string> Names(const std::string& text, const char* pattern) {
  const std::regex name(pattern);
  std::set<std::string> names;
  for (std::sregex_iterator match(text.begin(), text.end(), name), end; match != end; ++match) {
    names.insert((*match)[1]);
  }
  return names;
}

TEST(ExportedSymbols, AreTheFunctionsOfThePublicHeader) {
  const std::string header = WithoutComments(Read(std::fopen(KAVO_HEADER, "r")));
  const std::set<std::string> declared = Names(header, R"((?:^|\n)[a-z][a-z ]*[ *]+(\w+)\([^;{]*\);)");
  EXPECT_TRUE(declared.contains("KavoLookup")) << "the header was not understood";
  const std::string symbols = Read(::popen(KAVO_NM " -D --defined-only " KAVO_LIBRARY, "r"));
  EXPECT_EQ(declared, Names(symbols, R"([0-9a-f]+ \w (\S+)\n)"));
}

}  // namespace
