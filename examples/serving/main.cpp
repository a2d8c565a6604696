// Serves a trained snapshot while increments arrive in its folder and are applied, and shows what that costs requests.
//
//   serving --threads 2 --seconds 5
//
// One child process trains the rows and saves a full snapshot, which is loaded and served; then another resumes from
// it, trains on and saves increments. Exits with 1 when a request gets a row that is torn, missing, or older than the
// snapshot that was applied before it, or when a call fails.
//
// Reading order for the library's sake: server (load, update, lookup), rounds (the trainer, and what rows must be).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <system_error>
#include <thread>

#include "folder.h"
#include "program.h"
#include "serving/server.h"

namespace Serving {
namespace {

struct Arguments {
  Plan plan;
  unsigned threads = 1;
  double seconds = 3.0;
  std::string directory;
};

void Declare(CLI::App& app, Arguments& arguments) {
  app.add_option("--rows", arguments.plan.rows, "Rows of the full snapshot; an increment trains a tenth, and adds one")
      ->check(CLI::Range(std::uint64_t{10}, std::uint64_t{1} << 30));
  app.add_option("--dim", arguments.plan.dim, "Floats of a row")->check(CLI::Range(1U, 1024U));
  app.add_option("--increments", arguments.plan.rounds, "Increments that arrive")->check(CLI::Range(1U, 1000U));
  app.add_option("--threads", arguments.threads, "Threads that serve")->check(CLI::Range(1U, 1024U));
  app.add_option("--seconds", arguments.seconds, "Time to serve without increments, and that they are spread over")
      ->check(CLI::Range(0.01, 3600.0));
  app.add_option("--directory", arguments.directory, "Keep the snapshots in this directory; none: they are removed")
      ->check(CLI::ExistingDirectory);
}

// A process that does nothing but work(). It does not outlive this object.
class Child {
 public:
  explicit Child(const std::function<void()>& work) {
    std::fflush(stdout);
    m_pid = ::fork();
    if (m_pid < 0) {
      throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_pid == 0) {
      int status = 0;
      try {
        work();
      } catch (const std::exception& error) {
        fmt::print(stderr, "serving: the trainer: {}\n", error.what());
        status = 1;
      }
      ::_exit(status);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (!m_ended) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
    }
  }
  // Whether it has; throws when it did not end well. `options` as for waitpid.
  bool HasEnded(int options = WNOHANG) {
    int status = 0;
    m_ended = ::waitpid(m_pid, &status, options) == m_pid;
    if (m_ended && status != 0) {
      throw std::runtime_error("the trainer failed");
    }
    return m_ended;
  }

 private:
  pid_t m_pid;
  bool m_ended = false;
};

void Print(const char* phase, Tally tally) {
  const auto rate = static_cast<std::uint64_t>(static_cast<double>(tally.rows) / tally.seconds);
  fmt::print("{:<24}{:>10}{:>14}{:>10.1f}{:>10.1f}{:>12.1f}\n", phase, Examples::Count(tally.nanoseconds.size()),
             Examples::Count(rate), tally.Quantile(0.5), tally.Quantile(0.99), tally.Quantile(0.999));
}

void Run(const Arguments& arguments) {
  const Plan& plan = arguments.plan;
  const Examples::Folder folder(arguments.directory);
  Child([&] { TrainRounds(plan, folder.Path(), 0, 0, 0.0); }).HasEnded(0);
  Server server(plan, folder.Path());
  const auto sleep = [](double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); };

  fmt::print("{} rows of {} floats, {} threads, {} keys a request; p50, p99, p99.9 in microseconds\n",
             Examples::Count(plan.rows), plan.dim, arguments.threads, REQUEST_KEYS);
  Examples::Rule();
  fmt::print("{:<24}{:>10}{:>14}{:>10}{:>10}{:>12}\n", "", "requests", "keys/s", "p50", "p99", "p99.9");
  Examples::Rule();
  const Tally quiet = server.Serve(arguments.threads, [&] { sleep(arguments.seconds); });
  Print("nothing arrives", quiet);

  Child trainer([&] { TrainRounds(plan, folder.Path(), 1, plan.rounds, arguments.seconds / plan.rounds); });
  const Tally updated = server.Serve(arguments.threads, [&] {
    for (bool last = false; !last; sleep(0.005)) {
      last = trainer.HasEnded();  // before the update, which has all then
      server.Update();
    }
  });
  Print("increments arrive", updated);
  Examples::Rule();
  fmt::print("{} increments applied; {} rows by then, {} growths of the tables\n", server.Round(),
             Examples::Count(plan.Known(server.Round())), server.Growths());
  fmt::print("checked {} rows: {} torn, {} missing, {} stale\n", Examples::Count(quiet.rows + updated.rows),
             quiet.torn + updated.torn, quiet.missing + updated.missing, quiet.stale + updated.stale);
  server.CheckAllRows();
  if (server.Round() != plan.rounds || quiet.Wrong() + updated.Wrong() != 0) {
    throw std::runtime_error("requests got wrong rows, or increments did not arrive");
  }
}

}  // namespace
}  // namespace Serving

int main(int argc, char** argv) {
  CLI::App app("Serves a trained snapshot while increments arrive and are applied.", "serving");
  return Examples::Main<Serving::Arguments>(app, argc, argv, Serving::Declare, Serving::Run);
}
