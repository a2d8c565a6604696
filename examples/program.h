// What the examples' main functions share: failures as messages and exit codes, numbers as people read them.
#pragma once

#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

namespace Examples {

// 1234567 as 1,234,567.
inline std::string Count(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t end = text.size(); end > 3;) {
    end -= 3;
    text.insert(end, 1, ',');
  }
  return text;
}

inline void Rule() {
  fmt::print("{:-<80}\n", "");
}

inline double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The program: declare(app, arguments), then run(arguments), which throws when anything is wrong. The help shows what
// options are without being given.
template <class Arguments, class Run>
int Main(CLI::App& app, int argc, char** argv, void (&declare)(CLI::App&, Arguments&), const Run& run) {
  try {
    Arguments arguments;
    app.option_defaults()->always_capture_default();
    declare(app, arguments);
    app.parse(argc, argv);
    run(arguments);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
      throw std::runtime_error("standard output: cannot be written");
    }
    return 0;
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  } catch (const std::exception& error) {
    std::fflush(stdout);
    fmt::print(stderr, "{}: {}\n", app.get_name(), error.what());
    return 1;
  }
}

}  // namespace Examples
