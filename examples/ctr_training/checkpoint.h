// A training in a folder of snapshots: both embeddings with their state, and in the blob where the training stands.
#pragma once

#include <string>

#include "ctr_training/model.h"
#include "ctr_training/trainer.h"

namespace CtrTraining {

// Saves one snapshot after the other: first a full one, unless the model was resumed from this folder, then increments.
class Checkpoints {
 public:
  Checkpoints(std::string folder, bool resumedFromIt) : m_folder(std::move(folder)), m_follows(resumedFromIt) {}
  // Returns what was saved, for people.
  std::string Save(const Model& model, const TrainingState& state);

 private:
  const std::string m_folder;
  bool m_follows;  // the newest snapshot of the folder is this model's
};

// Loads the newest snapshot into a model that is empty. Throws when it is of another log.
TrainingState Resume(const std::string& folder, const Model& model, const LogIdentity& log);

}  // namespace CtrTraining
