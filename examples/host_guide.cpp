// SPDX-License-Identifier: Apache-2.0
// The code that docs/host.md quotes, and a run of it: the program ends with 0 when each part did
// what the guide says.

#include <algorithm>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "penstock/host.h"
#include "penstock/penstock.h"

namespace {

int g_failures = 0;

void Expect(bool isTrue, const char* what) {
  if (isTrue) return;
  ++g_failures;
  std::cerr << "host_guide: not so: " << what << '\n';
}

// [quote: sink]
void PrintErrors() {
  CLogger::GetInstance().SetLevel(LOG_NOTICE);
  CLogger::GetInstance().SetSink([](const LogRecord& r) {
    std::clog << (r.level == LOG_ERROR ? "error " : "notice ") + r.function + " " + r.text + "\n";
  });
}
// [end]

// [quote: sender]
// Sends datasets, each once, whatever the pipeline calls and however often.
class Sender {
 public:
  // The transmitter. It records and returns: no call into the pipeline, no exception.
  int Offer(const std::shared_ptr<Dataset>& ds) {
    m_cursors.try_emplace(ds->GetN(), Cursor{ds, ds->GetEnumerator()});
    m_offered.push_back(ds->GetN());
    return 0;
  }

  // Called by the event loop after every call that may have offered something, and after anything
  // that may have sealed a dataset. `closed` tells whether a dataset was closed.
  void Pump(const std::function<bool(std::uint64_t)>& closed) {
    m_offered.clear();
    for (auto& [n, cursor] : m_cursors) {
      if (cursor.ended) continue;
      if (!cursor.started) wire.push_back("START " + std::to_string(n));
      cursor.started = true;
      std::pair<InternalData, PipeCompressedData> unit;
      while (cursor.units.Next()) {
        if (cursor.units.Current(unit)) SendUnit(n, unit.second);
      }
      cursor.ended = closed(n) && cursor.ds->IsSealed();
      if (cursor.ended) wire.push_back("END " + std::to_string(n));
    }
  }

  // The target has the dataset: nothing of it is needed any more.
  void Forget(std::uint64_t n) { m_cursors.erase(n); }

  // The connection is a new one: everything that was not acknowledged goes again, from its start.
  void Rewind() {
    for (auto& [n, cursor] : m_cursors) cursor = Cursor{cursor.ds, cursor.ds->GetEnumerator()};
  }

  std::vector<std::string> wire;  // stands for the connection

 private:
  struct Cursor {
    std::shared_ptr<Dataset> ds;  // keeps alive what the enumerator reads
    BufInfoEnumerator units;
    bool started = false;
    bool ended = false;
  };

  void SendUnit(std::uint64_t n, const PipeCompressedData& unit) {
    if (unit.payload) {  // a resync buffer, compressed by the host
      wire.push_back("UNIT " + std::to_string(n));
    } else {  // a normal dataset: all its buffers, which the host compresses now
      for (const auto& [volume, bufs] : unit.origBuffers) {
        for (const InternalData& buf : bufs) {
          wire.push_back("BLOCK " + std::to_string(n) + "@" + std::to_string(buf.offset));
        }
      }
    }
  }

  std::map<std::uint64_t, Cursor> m_cursors;
  std::vector<std::uint64_t> m_offered;  // a real event loop looks at these only
};
// [end]

// [quote: install]
struct Host {
  Host() {
    pipeline.SetTransmitterCb([this](std::shared_ptr<Dataset>& ds) { return sender.Offer(ds); });
    pipeline.SetDoneCb([this](unsigned long n, bool, bool, bool) { done.push_back(n); });
    pipeline.SetFlushedCb([this](unsigned long n, bool, bool) { flushed.push_back(n); });
  }

  bool IsClosed(std::uint64_t n) const { return n < newest || bumped; }
  void Pump() {
    sender.Pump([this](std::uint64_t n) { return IsClosed(n); });
  }

  Sender sender;
  std::vector<std::uint64_t> done;
  std::vector<std::uint64_t> flushed;
  std::uint64_t newest = 0;
  bool bumped = false;
  Pipeline pipeline;  // last, so that it is destroyed before what its callbacks write to
};
// [end]

InternalData MakeWrite(std::uint64_t offset) {
  return {UuidT{}, offset, 4096, std::make_shared<std::uint8_t[]>(4096), 0};
}

// [quote: normal]
void BeginDataset(Host& host, bool mustBeStored) {
  const std::uint64_t n = host.newest + 1;
  const auto ds = std::make_shared<Dataset>(n, true, 64 << 20, 0U);
  ds->SetDsTimestamp();  // before PushDs, which copies it
  host.newest = n;
  host.bumped = false;
  host.pipeline.PushDs(ds, mustBeStored);  // closes dataset n - 1
  host.Pump();
}

void Write(Host& host, InternalData buf) {
  if (host.pipeline.PushBuf(buf, buf.length) == DS_ERROR_OUT_OF_RANGE) {  // the dataset is full
    BeginDataset(host, false);
    host.pipeline.PushBuf(buf, buf.length);
  }
}

void CloseNewest(Host& host) {  // at most once a dataset; no PushBuf until the next PushDs
  host.bumped = true;
  host.pipeline.BumpDs();
  host.Pump();
}
// [end]

// [quote: answers]
void OnAck(Host& host, std::uint64_t n) {
  std::size_t bytes = 0;
  if (host.pipeline.Ack(n, &bytes) == DS_ERROR_OK) host.sender.Forget(n);
  host.Pump();  // successors may have entered the transmit pipe
}

void OnDone(Host& host, std::uint64_t n, bool success, bool empty) {
  host.pipeline.Done(n, success, empty);  // reports n, and all that waited for it, in order
}

void OnFlushed(Host& host, std::uint64_t n, bool success) { host.pipeline.Flushed(n, success); }
// [end]

// [quote: store]
// Stores a dataset that was pushed with the flag true, and says so exactly once.
void StoreDataset(Host& host, std::uint64_t n, const std::string& spool,
                  const std::vector<std::shared_ptr<OM_DP::CompressedData>>& units) {
  const auto file = std::make_shared<DatasetSerializer>(n, UuidT{}, spool);
  host.pipeline.AddSerializer(n, file);  // released when n is reported done
  const auto start = OM_DP::MakeDatasetStartv2(1);
  start->n = n;
  bool good = file->WriteHeader(n, start) == 44 + 16 * start->count;
  for (const auto& unit : units) {
    const auto size = static_cast<int>(20 + unit->length);
    good = good && file->WriteData(n, unit).first == size;
  }
  good = good && file->CloseDatasetFile(n, false) == 0;
  if (good) {
    host.pipeline.MarkStored(n);
  } else {
    file->CloseDatasetFile(n, true);
    host.pipeline.MarkError(n);
  }
}
// [end]

// [quote: resync-begin]
// Begins resync dataset n, of one range, and admits its buffers: descriptors only.
std::shared_ptr<Dataset> BeginResync(Host& host, const FingerprintRange& range,
                                     SendFingerprintsFn sendQuery,
                                     std::function<void(InternalData)> compress) {
  const std::uint64_t n = host.newest + 1;
  auto ds = std::make_shared<Dataset>(n, std::vector{range}, range.length);
  ds->SetDSReceivedCb([compress](std::shared_ptr<Dataset> kept, InternalData& buf) {
    kept->MarkHasBuffers();  // not sealed until the worker's result is there
    compress(buf);           // hands it to a worker and returns
  });
  ds->InitFingerprintRequester(std::move(sendQuery));  // before the first count
  ds->SetDsTimestamp();
  host.newest = n;
  host.bumped = false;
  host.pipeline.PushDs(ds, false);
  host.Pump();
  for (std::uint64_t at = range.offset; at < range.offset + range.length; at += 4096) {
    InternalData buf{range.volume, at, 4096, nullptr, 0};
    host.pipeline.PushBuf(buf, buf.length);
    ds->IncTotal4KBlocks();  // every block, before the dataset is closed
  }
  return ds;
}
// [end]

// [quote: resync-result]
// A worker's result, posted to the pipeline's thread.
void OnCompressed(Host& host, const std::shared_ptr<Dataset>& ds, const InternalData& buf,
                  std::shared_ptr<OM_DP::CompressedData> bytes) {
  PipeCompressedData unit;
  unit.totalBufs = 1;
  unit.payload = std::move(bytes);
  unit.origBuffers[buf.volume].push_back(buf);
  ds->FinalizeBuffer(buf, unit);
  ds->MarkDoneBuffers();  // at 0 the successors may go
  host.Pump();
}
// [end]

// [quote: reconnect]
// `acked` and `done`: what the target, asked on the new connection, says it has.
void OnReconnect(Host& host, std::uint64_t acked, std::uint64_t done) {
  auto oldest = host.pipeline.GetCurXmitDsNum();  // whether there is one, and its number
  for (; oldest.first && oldest.second <= acked; oldest = host.pipeline.GetCurXmitDsNum()) {
    OnAck(host, oldest.second);
  }
  for (std::uint64_t n = host.done.empty() ? 1 : host.done.back() + 1; n <= done; ++n) {
    OnDone(host, n, true, false);
  }
  host.sender.Rewind();
  host.pipeline.Retransmit(false);
  host.Pump();
}
// [end]

// [quote: shutdown]
void ShutDown(Host& host, const std::function<void()>& answerAll) {
  CloseNewest(host);
  host.pipeline.SetAcceptStatus(false);
  std::thread waiter([&host] { host.pipeline.FulfillPipeData(); });  // looks once a second
  answerAll();  // this thread goes on delivering acknowledgements and reports
  waiter.join();
}
// [end]

using Wire = std::vector<std::string>;

void RunNormal(const std::string& spool) {
  Host host;
  BeginDataset(host, true);
  Write(host, MakeWrite(0));
  Write(host, MakeWrite(8192));
  Expect(host.sender.wire.empty(), "a dataset that is being filled is not sent");
  BeginDataset(host, false);
  Expect(host.sender.wire == Wire{"START 1", "BLOCK 1@0", "BLOCK 1@8192", "END 1"},
         "pushing the next dataset sends the one before, once");
  OnAck(host, 1);
  OnDone(host, 1, true, false);
  Expect(host.done.empty(), "a dataset pushed with the flag waits for its storing");
  StoreDataset(host, 1, spool, {OM_DP::MakeCompressedData(8)});
  Expect(host.done == std::vector<std::uint64_t>{1}, "stored and done is reported");
  OnFlushed(host, 1, true);
  Expect(host.flushed == std::vector<std::uint64_t>{1}, "flushed is reported");
  ShutDown(host, [&host] {
    OnAck(host, 2);
    OnDone(host, 2, true, true);
    OnFlushed(host, 2, true);
  });
  Expect(host.flushed.size() == 2, "nothing is left at the end");
}

void RunReconnect() {
  Host host;
  for (int i = 0; i < 3; ++i) {
    BeginDataset(host, false);
    Write(host, MakeWrite(0));
  }
  CloseNewest(host);
  host.sender.wire.clear();
  OnReconnect(host, 1, 1);
  Expect(host.done == std::vector<std::uint64_t>{1}, "what the target has is applied first");
  Expect(host.sender.wire == Wire{"START 2", "BLOCK 2@0", "END 2", "START 3", "BLOCK 3@0", "END 3"},
         "the rest is sent again, oldest first");
}

// Two blocks: the first is the same on the target, the second is not.
void RunResync() {
  Host host;
  std::vector<std::uint64_t> query;
  std::vector<InternalData> toCompress;
  const auto ds = BeginResync(
      host, {UuidT{}, 0, 8192},
      [&query](std::vector<std::uint64_t> batch, std::uint64_t) { query = std::move(batch); },
      [&toCompress](InternalData buf) { toCompress.push_back(std::move(buf)); });
  BeginDataset(host, false);  // takes the writes that come from now on
  Write(host, MakeWrite(4096));
  CloseNewest(host);
  // [quote: resync-match]
  const std::vector<InternalData> blocks = {MakeWrite(0), MakeWrite(4096)};  // read from the source
  for (const InternalData& block : blocks) ds->SendFingerprint4Match(block.offset + 1);
  for (const InternalData& block : blocks) {  // for each answer of the target
    BufFingerprint local;
    local.bytes.fill(1);
    BufFingerprint remote;
    remote.bytes.fill(block.offset == 0 ? 1 : 2);
    ds->AddLocalFingerprint(block, local);
    ds->AddRemoteFingerprint({block.volume, block.offset, block.length, nullptr, 0}, remote);
  }
  host.Pump();
  // [end]
  Expect(query == std::vector<std::uint64_t>{1, 4097}, "the last, shorter batch is sent");
  Expect(toCompress.size() == 1 && toCompress[0].data != nullptr,
         "the block that differs is handed on with its data");
  Expect(host.sender.wire == Wire{"START 1"}, "the live writes wait until the resync is sealed");
  OnCompressed(host, ds, toCompress[0], OM_DP::MakeCompressedData(8));
  Expect(host.sender.wire == Wire{"START 1", "UNIT 1", "END 1", "START 2", "BLOCK 2@4096", "END 2"},
         "its unit goes, and then the live writes");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: host_guide DIRECTORY\n";
    return 2;
  }
  PrintErrors();
  RunNormal(argv[1]);
  RunReconnect();
  RunResync();
  return g_failures == 0 ? 0 : 1;
}
