// SPDX-License-Identifier: Apache-2.0
#include "tests/model/random_ops.h"

// The operations on single datasets.

namespace model {

namespace {

constexpr int kVolumes = 4;
constexpr int kPrints = 4;

}  // namespace

void RandomOps::FinalizeHeld() {
  const DatasetModel* ds = Pick();
  const Buffer* held = ds == nullptr ? nullptr : PickHeld(*ds);
  if (held == nullptr) return PushBuffer();
  const Buffer buf = *held;
  std::optional<Unit> unit;
  if (m_random.Percent(70)) unit = RandomUnit();
  m_twin.Finalize(ds->id, buf, unit);
}

void RandomOps::FinalizeOdd() {
  const DatasetModel* ds = Pick();
  if (ds != nullptr) m_twin.Finalize(ds->id, RandomBuffer(kVolumes), RandomUnit());
}

void RandomOps::UnitReady() {
  const DatasetModel* ds = Pick();
  if (ds == nullptr) return;
  Unit unit = RandomUnit();
  if (m_random.Percent(50)) unit.buffers = ds->held;
  std::set<Key> keys;
  for (const auto& [volume, buffers] : unit.buffers) {
    for (const Buffer& buf : buffers) keys.insert(buf.key);
  }
  if (m_random.Percent(70)) unit.totalBufs = keys.size();
  m_twin.UnitReady(ds->id, unit);
}

void RandomOps::MarkFinalized() {
  const DatasetModel* ds = Pick();
  const Buffer* held = ds == nullptr ? nullptr : PickHeld(*ds);
  if (held == nullptr) return;
  const Buffer buf = *held;
  m_twin.MarkFinalized(ds->id, buf);
}

void RandomOps::HasBuffers() {
  const DatasetModel* ds = Pick();
  if (ds != nullptr) m_twin.HasBuffers(ds->id);
}

void RandomOps::DoneBuffers() {
  const DatasetModel* ds = Pick();
  if (ds != nullptr && (ds->working > 0 || m_random.Percent(2))) m_twin.DoneBuffers(ds->id);
}

void RandomOps::FinishKept() {
  if (m_twin.kept.empty()) return PrintHeld();
  const auto [id, buf] = m_twin.kept.front();
  m_twin.kept.erase(m_twin.kept.begin());
  m_twin.Finalize(id, buf, RandomUnit());
  m_twin.Compare(false);
  m_twin.DoneBuffers(id);
}

void RandomOps::PrintHeld() {
  const DatasetModel* ds = Pick();
  const Buffer* held = ds == nullptr ? nullptr : PickHeld(*ds);
  if (held == nullptr) return PushBuffer();
  Buffer buf = *held;
  if (m_random.Percent(30)) buf.payload = 0;
  const Print print = m_random.Percent(60) ? 1 : m_random.Below(kPrints);
  const bool local = ds->local.count(buf.key) == 0 && m_random.Percent(80);
  m_twin.AddPrint(ds->id, local, buf, print);
}

void RandomOps::PrintOdd() {
  const DatasetModel* ds = Pick();
  if (ds == nullptr) return;
  m_twin.AddPrint(ds->id, m_random.Percent(50), RandomBuffer(kVolumes), m_random.Below(kPrints));
}

void RandomOps::Blocks() {
  const DatasetModel* ds = Pick();
  if (ds == nullptr || !ds->requester) return;
  const int id = ds->id;
  const int counted = m_random.Percent(50) ? m_random.Below(4) : m_random.Below(200);
  for (int i = 0; i < counted; ++i) m_twin.CountBlock(id);
  // Mostly up to what is announced, so that the last batch can be recognised.
  const std::uint64_t missing =
      ds->requester->announced - std::min(ds->requester->announced, ds->requester->offered);
  int offered = m_random.Below(60);
  if (m_random.Percent(60)) offered = static_cast<int>(std::min<std::uint64_t>(missing, 80));
  for (int i = 0; i < offered; ++i) m_twin.OfferBlock(id, m_random.Bits());
}

void RandomOps::Complete() {
  const DatasetModel* ds = Pick();
  if (ds == nullptr) return;
  m_twin.Complete(ds->id);
  m_twin.Check(ds->id);
}

// Finishes all that keeps the newest transmitted dataset from sealing, as far as that can be done.
void RandomOps::SettleNewest() {
  if (m_twin.pipeline.transmit.empty()) return;
  const DatasetModel& ds = *m_twin.pipeline.transmit.back();
  const auto held =
      ds.held;  // finishing may move other datasets, but not change this one's buffers
  for (const auto& [volume, buffers] : held) {
    for (const Buffer& buf : buffers) {
      if (ds.finalized.count(buf.key) > 0) continue;
      if (ds.resync && ds.local.count(buf.key) == 0) m_twin.AddPrint(ds.id, true, buf, 1);
      if (ds.resync && ds.remote.count(buf.key) == 0) {
        m_twin.AddPrint(ds.id, false, buf, 1 + m_random.Below(2));
      }
      if (ds.finalized.count(buf.key) == 0) m_twin.Finalize(ds.id, buf, RandomUnit());
      m_twin.Compare(false);
    }
  }
  while (ds.working > 0) m_twin.DoneBuffers(ds.id);
}

}  // namespace model
