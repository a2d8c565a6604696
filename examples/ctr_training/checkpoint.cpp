#include "ctr_training/checkpoint.h"

#include <stdexcept>
#include <type_traits>

#include "program.h"

namespace CtrTraining {
namespace {

constexpr unsigned CHAINS_KEPT = 2;

}  // namespace

static_assert(std::is_trivially_copyable_v<TrainingState>, "its bytes are the blob");

std::string Checkpoints::Save(const Model& model, const TrainingState& state) {
  const unsigned kind = m_follows ? KAVO_SNAPSHOT_INCREMENT : KAVO_SNAPSHOT_FULL;
  const KavoSaveOptions options{sizeof(options), kind, 1, CHAINS_KEPT, 0};
  const auto items = model.Items();
  Examples::Check(KavoSnapshotSave(m_folder.c_str(), &options, items.data(), items.size(), &state, sizeof(state),
                                   nullptr, nullptr, nullptr));
  m_follows = true;
  const KavoSnapshotInfo info = Examples::NewestIn(m_folder.c_str());
  return fmt::format("snapshot {}, {}, {} bytes, at row {} of epoch {}", info.number,
                     kind == KAVO_SNAPSHOT_FULL ? "full" : "increment", Examples::Count(info.bytes),
                     Examples::Count(state.nextRow), state.epoch);
}

TrainingState Resume(const std::string& folder, const Model& model, const LogIdentity& log) {
  const KavoSnapshotInfo info = Examples::NewestIn(folder.c_str());
  TrainingState state;
  if (info.blobBytes != sizeof(state)) {
    throw std::runtime_error(fmt::format("{}: snapshot {} is not one of this program", folder, info.number));
  }
  Examples::Check(KavoSnapshotReadBlob(folder.c_str(), info.number, &state, sizeof(state)));
  if (state.log != log) {
    throw std::runtime_error(fmt::format("{}: snapshot {} belongs to another log, of {} rows and seed {}", folder,
                                         info.number, Examples::Count(state.log.rows), state.log.seed));
  }
  const auto items = model.Items();
  Examples::Check(KavoSnapshotLoad(folder.c_str(), info.number, items.data(), items.size(), 0, 1, nullptr, nullptr));
  return state;
}

}  // namespace CtrTraining
