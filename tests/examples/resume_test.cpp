// The program of the demo, killed as it were and resumed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>

#include "support/own_folder.h"

namespace CtrTraining {
namespace {

namespace fs = std::filesystem;

class Resumed : public testing::Test {
 protected:
  // What the program reports of a training with these options, without what depends on its speed and memory.
  std::string Quality(const std::string& options) const {
    const std::string out = m_folder.Path("out");
    const std::string command = CTR_TRAINING " --threads 1 " + options + " >" + out;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    const std::string text = m_folder.Read("out");
    std::string quality;
    const std::regex line("\n(distinct|evaluated|log loss|share|AUC|epoch . rows)[^\n]*");
    for (std::sregex_iterator match(text.begin(), text.end(), line); match != std::sregex_iterator(); ++match) {
      quality += match->str();
    }
    EXPECT_NE(quality, "") << text;
    return quality;
  }

  // As if the program had ended before it saved snapshots `number` and up.
  void DropSnapshotsFrom(unsigned number) const {
    for (fs::directory_iterator file(m_folder.Path("saved")); file != fs::directory_iterator(); ++file) {
      const std::string name = file->path().filename();
      if (name.starts_with("manifest-") && std::stoul(name.substr(9)) >= number) {
        fs::remove(file->path());
      }
    }
  }

  const OwnFolder m_folder;
};

TEST_F(Resumed, ATrainingEndsAsOneThatWasNotInterrupted) {
  ASSERT_EQ(std::system((CTR_TRAINING " --rows 5000 --write-log " + m_folder.Path("log")).c_str()), 0);
  for (const std::string& log : {std::string("--rows 5000"), m_folder.Path("log")}) {
    const std::string options = log + " --epochs 2 --optimiser adam --save " + m_folder.Path("saved") + " --every 1500";
    const std::string whole = Quality(log + " --epochs 2 --optimiser adam");
    EXPECT_EQ(Quality(options), whole);
    // Into the second epoch, the evaluated rows, the beginning; each time increments follow on those that are left.
    for (const unsigned number : {7U, 4U, 2U}) {
      DropSnapshotsFrom(number);
      EXPECT_EQ(Quality(options + " --resume " + m_folder.Path("saved")), whole) << number;
    }
    fs::remove_all(m_folder.Path("saved"));
  }
}

}  // namespace
}  // namespace CtrTraining
