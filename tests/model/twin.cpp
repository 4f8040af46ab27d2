// SPDX-License-Identifier: Apache-2.0
#include "tests/model/twin.h"

#include <sstream>

#include "penstock/host.h"
#include "tests/support/make.h"

namespace model {

namespace {

constexpr int kPayloads = 6;

void Expect(std::int64_t real, std::int64_t plain, const char* what) {
  if (real == plain) return;
  throw Mismatch(std::string(what) + ": the library answers " + std::to_string(real) +
                 ", the model " + std::to_string(plain));
}

int ResultOf(std::uint64_t failures, int offer) {
  if ((failures >> static_cast<unsigned>(offer % 64) & 1U) != 0) return -1 - offer % 3;
  return offer % 3;  // anything from 0 up is fine
}

}  // namespace

// Different prints differ in the first byte, in the last one or in all: each byte must count.
BufFingerprint RealPrint(Print print) {
  BufFingerprint fp;
  if (print == 1) fp.bytes.back() = 1;
  if (print == 2) fp.bytes.front() = 2;
  if (print == 3) fp.bytes.fill(3);
  return fp;
}

Twin::Twin(bool withDoneCb, bool withFlushedCb) {
  for (int i = 0; i < kPayloads; ++i) {
    m_payloads.push_back(std::make_shared<std::uint8_t[]>(1));
    m_outputs.push_back(OM_DP::MakeCompressedData(1));
  }
  InstallCallbacks(withDoneCb, withFlushedCb);
}

Twin::~Twin() = default;

void Twin::InstallCallbacks(bool withDoneCb, bool withFlushedCb) {
  m_real.SetTransmitterCb([this](std::shared_ptr<Dataset>& ds) {
    const auto id = static_cast<std::uint64_t>(IdOf(ds.get()));
    m_realEvents.push_back({Event::kTransmit, {id, ds->GetN(), ds->GetCompressedDataNum()}});
    return ResultOf(m_failures, m_realOffers++);
  });
  pipeline.transmitter = [this](DatasetModel& ds) {
    const auto id = static_cast<std::uint64_t>(ds.id);
    m_modelEvents.push_back({Event::kTransmit, {id, ds.n, ds.units.size()}});
    return ResultOf(m_failures, m_modelOffers++);
  };
  if (withDoneCb) {
    const auto record = [](std::vector<Event>& events) {
      return [&events](unsigned long n, bool fingerprinted, bool success, bool empty) {
        events.push_back({Event::kDone, {n, fingerprinted, success, empty}});
      };
    };
    m_real.SetDoneCb(record(m_realEvents));
    pipeline.onDone = record(m_modelEvents);
  }
  if (withFlushedCb) {
    const auto record = [](std::vector<Event>& events) {
      return [&events](unsigned long n, bool fingerprinted, bool success) {
        events.push_back({Event::kFlushed, {n, fingerprinted, success}});
      };
    };
    m_real.SetFlushedCb(record(m_realEvents));
    pipeline.onFlushed = record(m_modelEvents);
  }
}

void Twin::SetFailures(std::uint64_t mask) {
  m_failures = mask;
  m_realOffers = 0;
  m_modelOffers = 0;
  m_touched = -1;
}

// --- The same value on both sides. ---

int Twin::IdOf(const Dataset* ds) const {
  const auto entry = m_ids.find(ds);
  if (entry == m_ids.end()) throw Mismatch("the library has a dataset that nobody pushed");
  return entry->second;
}

InternalData Twin::Real(const Buffer& buf) const {
  InternalData real{Volume(static_cast<std::uint8_t>(buf.key.volume)), buf.key.offset,
                    buf.key.length, nullptr, buf.opaque};
  if (buf.payload > 0) real.data = m_payloads[static_cast<std::size_t>(buf.payload - 1)];
  return real;
}

PipeCompressedData Twin::Real(const Unit& unit) const {
  PipeCompressedData real;
  real.totalBufs = unit.totalBufs;
  real.toXmit = unit.toXmit;
  if (unit.payload > 0) real.payload = m_outputs[static_cast<std::size_t>(unit.payload - 1)];
  for (const auto& [volume, buffers] : unit.buffers) {
    auto& list = real.origBuffers[Volume(static_cast<std::uint8_t>(volume))];
    for (const Buffer& buf : buffers) list.push_back(Real(buf));
  }
  return real;
}

Buffer Twin::Plain(const InternalData& buf) const {
  Buffer plain{{buf.volume.bytes[15], buf.offset, buf.length}, 0, buf.opaque};
  for (int i = 0; i < kPayloads; ++i) {
    if (buf.data && buf.data == m_payloads[static_cast<std::size_t>(i)]) plain.payload = i + 1;
  }
  return plain;
}

Unit Twin::Plain(const PipeCompressedData& unit) const {
  Unit plain;
  plain.totalBufs = unit.totalBufs;
  plain.toXmit = unit.toXmit;
  for (int i = 0; i < kPayloads; ++i) {
    const auto& output = m_outputs[static_cast<std::size_t>(i)];
    if (unit.payload && unit.payload == output) plain.payload = i + 1;
  }
  for (const auto& [volume, buffers] : unit.origBuffers) {
    auto& list = plain.buffers[volume.bytes[15]];
    for (const InternalData& buf : buffers) list.push_back(Plain(buf));
  }
  return plain;
}

std::vector<std::uint64_t> Twin::BufferArgs(int id, const Buffer& buf) const {
  return {static_cast<std::uint64_t>(id),
          static_cast<std::uint64_t>(buf.key.volume),
          buf.key.offset,
          buf.key.length,
          static_cast<std::uint64_t>(buf.payload),
          buf.opaque};
}

// --- Operations of the pipeline. ---

void Twin::MakeModel(const DatasetSpec& spec) {
  const int id = static_cast<int>(models.size());
  auto ds = std::make_unique<DatasetModel>(id, spec.n, spec.resync);
  ds->capacity = spec.capacity;
  for (const auto& [volume, range] : spec.ranges) ds->ranges.try_emplace(volume, range);
  ds->timestamp = spec.timestamp;
  const auto recorder = [this](Event::Kind kind) {
    return [this, kind](DatasetModel& d, const Buffer& buf) {
      m_modelEvents.push_back({kind, BufferArgs(d.id, buf)});
    };
  };
  if (spec.newCb) {
    // The buffer counts already when its callback comes.
    ds->onNew = [this](DatasetModel& d, const Buffer& buf) {
      m_modelEvents.push_back({Event::kNew, BufferArgs(d.id, buf)});
      m_modelEvents.back().args.push_back(d.bytes);
    };
  }
  if (spec.finalizedCb) ds->onFinalized = recorder(Event::kFinalized);
  if (spec.received != OnReceived::kNotInstalled) {
    ds->onReceived = [this, mode = spec.received](DatasetModel& d, const Buffer& buf) {
      m_modelEvents.push_back({Event::kReceived, BufferArgs(d.id, buf)});
      if (mode == OnReceived::kMarkHasBuffers) {
        d.HasBuffers();
        kept.emplace_back(d.id, buf);
      }
    };
  }
  ds->onSend = [this](std::vector<std::uint64_t> batch, std::uint64_t key) {
    batch.push_back(key);
    m_modelEvents.push_back({Event::kSend, std::move(batch)});
  };
  if (spec.requester) ds->InitRequester();
  models.push_back(std::move(ds));
}

void Twin::MakeReal(const DatasetSpec& spec) {
  const int id = static_cast<int>(m_datasets.size());
  std::vector<FingerprintRange> ranges;
  for (const auto& [volume, range] : spec.ranges) {
    ranges.push_back({Volume(static_cast<std::uint8_t>(volume)), range.offset, range.length});
  }
  auto ds = spec.resync ? std::make_shared<Dataset>(spec.n, ranges, spec.capacity)
                        : std::make_shared<Dataset>(spec.n, spec.isNormal, spec.capacity, 0U);
  ds->SetDsTimestamp(spec.timestamp);
  const auto recorder = [this](Event::Kind kind) {
    return [this, kind](std::shared_ptr<Dataset> d, const InternalData& buf) {
      m_realEvents.push_back({kind, BufferArgs(IdOf(d.get()), Plain(buf))});
    };
  };
  if (spec.newCb) {
    ds->SetNewBufCb([this](std::shared_ptr<Dataset> d, InternalData& buf) {
      m_realEvents.push_back({Event::kNew, BufferArgs(IdOf(d.get()), Plain(buf))});
      m_realEvents.back().args.push_back(d->GetBuffersSize());
    });
  }
  if (spec.finalizedCb) ds->SetDSFinalizedCb(recorder(Event::kFinalized));
  if (spec.received != OnReceived::kNotInstalled) {
    ds->SetDSReceivedCb(
        [this, mode = spec.received](std::shared_ptr<Dataset> d, InternalData& buf) {
          m_realEvents.push_back({Event::kReceived, BufferArgs(IdOf(d.get()), Plain(buf))});
          if (mode == OnReceived::kMarkHasBuffers) d->MarkHasBuffers();
        });
  }
  if (spec.requester) {
    ds->InitFingerprintRequester([this](std::vector<std::uint64_t> batch, std::uint64_t key) {
      batch.push_back(key);
      m_realEvents.push_back({Event::kSend, std::move(batch)});
    });
  }
  m_ids[ds.get()] = id;
  m_datasets.push_back(std::move(ds));
}

// A refused dataset stays in the lists, but no operation is made on it: it has no transmit
// callback.
Code Twin::Push(const DatasetSpec& spec, bool mustStore) {
  if (!pipeline.receive.empty()) m_touched = pipeline.receive.back()->id;
  MakeModel(spec);
  MakeReal(spec);
  const Code code = pipeline.Push(*models.back(), mustStore);
  Expect(m_real.PushDs(m_datasets.back(), mustStore), code, "PushDs");
  return code;
}

Code Twin::PushBuffer(const Buffer& buf, std::uint64_t origSize) {
  if (!pipeline.receive.empty()) m_touched = pipeline.receive.back()->id;
  const Code code = pipeline.PushBuffer(buf, origSize);
  InternalData real = Real(buf);
  Expect(m_real.PushBuf(real, origSize), code, "PushBuf");
  return code;
}

void Twin::Bump() {
  if (!pipeline.receive.empty()) m_touched = pipeline.receive.back()->id;
  pipeline.Bump();
  m_real.BumpDs();
}

void Twin::Drop() {
  pipeline.Drop();
  m_real.DropUnfinishedDs();
}

void Twin::Reset() {
  pipeline.Reset();
  m_real.Reset();
}

void Twin::Update() {
  pipeline.Update();
  m_real.UpdateTransmitter();
}

void Twin::Retransmit(bool clear) {
  const Code code = pipeline.Retransmit(clear);
  Expect(m_real.Retransmit(clear), code, "Retransmit");
}

void Twin::Ack(std::uint64_t n, bool wantSize) {
  constexpr std::size_t kUnwritten = 12345678901;
  std::optional<std::uint64_t> size;
  std::size_t realSize = kUnwritten;
  const Code code = pipeline.Ack(n, size);
  Expect(m_real.Ack(n, wantSize ? &realSize : nullptr), code, "Ack");
  const std::uint64_t wanted = wantSize ? size.value_or(kUnwritten) : kUnwritten;
  Expect(static_cast<std::int64_t>(realSize), static_cast<std::int64_t>(wanted), "Ack's size");
}

void Twin::Done(std::uint64_t n, bool success, bool empty) {
  const Code code = pipeline.Done(n, success, empty);
  Expect(m_real.Done(n, success, empty), code, "Done");
}

void Twin::Stored(std::uint64_t n, bool ok) {
  const Code code = pipeline.Stored(n, ok);
  Expect(ok ? m_real.MarkStored(n) : m_real.MarkError(n), code, ok ? "MarkStored" : "MarkError");
}

void Twin::Flushed(std::uint64_t n, bool success) {
  const Code code = pipeline.Flushed(n, success);
  Expect(m_real.Flushed(n, success), code, "Flushed");
}

void Twin::Clear(std::uint64_t upTo) {
  pipeline.Clear(upTo);
  m_real.ClearDonePipe(upTo);
}

void Twin::SetAccept(bool accept) {
  pipeline.accepting = accept;
  m_real.SetAcceptStatus(accept);
}

void Twin::AddWriter(std::uint64_t n) {
  const int writer = static_cast<int>(m_writers.size());
  m_writers.push_back(std::make_shared<DatasetSerializer>(n, Volume(1), "/nowhere"));
  pipeline.AddWriter(n, writer);
  m_real.AddSerializer(n, m_writers.back());
}

// --- Operations of a dataset. ---

void Twin::Finalize(int id, const Buffer& buf, const std::optional<Unit>& unit) {
  m_touched = id;
  Dataset& real = *m_datasets[static_cast<std::size_t>(id)];
  const Code code = models[static_cast<std::size_t>(id)]->Finalize(buf, unit.value_or(Unit{}));
  const DS_ERROR answer =
      unit ? real.FinalizeBuffer(Real(buf), Real(*unit)) : real.FinalizeBuffer(Real(buf));
  Expect(answer, code, "FinalizeBuffer");
}

void Twin::UnitReady(int id, const Unit& unit) {
  m_touched = id;
  const Code code = models[static_cast<std::size_t>(id)]->UnitReady(unit);
  Expect(m_datasets[static_cast<std::size_t>(id)]->NotifyBufferReady(Real(unit)), code,
         "NotifyBufferReady");
}

void Twin::MarkFinalized(int id, const Buffer& buf) {
  m_touched = id;
  const Code code = models[static_cast<std::size_t>(id)]->MarkFinalized(buf);
  Expect(m_datasets[static_cast<std::size_t>(id)]->MarkFinalized(Real(buf)), code, "MarkFinalized");
}

void Twin::HasBuffers(int id) {
  const int count = models[static_cast<std::size_t>(id)]->HasBuffers();
  Expect(m_datasets[static_cast<std::size_t>(id)]->MarkHasBuffers(), count, "MarkHasBuffers");
}

void Twin::DoneBuffers(int id) {
  const int count = models[static_cast<std::size_t>(id)]->DoneBuffers();
  Expect(m_datasets[static_cast<std::size_t>(id)]->MarkDoneBuffers(), count, "MarkDoneBuffers");
}

void Twin::CountBlock(int id) {
  models[static_cast<std::size_t>(id)]->CountBlock();
  m_datasets[static_cast<std::size_t>(id)]->IncTotal4KBlocks();
}

void Twin::OfferBlock(int id, std::uint64_t fp) {
  models[static_cast<std::size_t>(id)]->OfferBlock(fp);
  m_datasets[static_cast<std::size_t>(id)]->SendFingerprint4Match(fp);
}

void Twin::AddPrint(int id, bool local, const Buffer& buf, Print print) {
  m_touched = id;
  Dataset& real = *m_datasets[static_cast<std::size_t>(id)];
  const Code code = models[static_cast<std::size_t>(id)]->AddPrint(local, buf, print);
  const DS_ERROR answer = local ? real.AddLocalFingerprint(Real(buf), RealPrint(print))
                                : real.AddRemoteFingerprint(Real(buf), RealPrint(print));
  Expect(answer, code, local ? "AddLocalFingerprint" : "AddRemoteFingerprint");
}

void Twin::Complete(int id) {
  models[static_cast<std::size_t>(id)]->Complete();
  m_datasets[static_cast<std::size_t>(id)]->SetComplete();
}

void Twin::Check(int id) { m_datasets[static_cast<std::size_t>(id)]->CheckIfReadyAndCompress(); }

}  // namespace model
