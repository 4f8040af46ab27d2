// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_SUPPORT_PIPELINE_RIG_H_
#define PENSTOCK_TESTS_SUPPORT_PIPELINE_RIG_H_

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/make.h"
#include "tests/support/pipeline_records_text.h"

// Dataset numbers to loop over.
using Numbers = std::initializer_list<std::uint64_t>;

// A pipeline whose host writes down every callback among the log records, so that one text holds
// the whole sequence. Addresses are replaced by names (pipeline_records_text.h).
//
// The rig keeps no share of a dataset that Push makes, so that the counts of owners in the log are
// those of the library; its weak pointers keep an address from being used twice.
class PipelineRig : public ::testing::Test {
 protected:
  PipelineRig() {
    m_pipeline.SetTransmitterCb([this](std::shared_ptr<Dataset>& ds) {
      Note("transmit " + std::to_string(ds->GetN()));
      return m_onTransmit ? m_onTransmit(ds) : 0;
    });
    m_pipeline.SetDoneCb([this](unsigned long n, bool fingerprinted, bool success, bool empty) {
      Note("done " + std::to_string(n) + " fingerprinted " + rec::Word(fingerprinted) +
           " success " + rec::Word(success) + " empty " + rec::Word(empty));
      if (m_onDone) m_onDone(n);
    });
    m_pipeline.SetFlushedCb([this](unsigned long n, bool fingerprinted, bool success) {
      Note("flushed " + std::to_string(n) + " fingerprinted " + rec::Word(fingerprinted) +
           " success " + rec::Word(success));
      if (m_onFlushed) m_onFlushed(n);
    });
  }

  // Writes what the host does into the trace.
  static void Note(const std::string& what) {
    CLogger::GetInstance().LogEx(LOG_NOTICE, "", 0, "host", 0, "%s", what.c_str());
  }

  // Gives the dataset its name in the trace.
  std::shared_ptr<Dataset> Known(std::shared_ptr<Dataset> ds) {
    m_names[Ptr(ds.get())] = ds->GetN();
    m_known.push_back(ds);
    return ds;
  }

  std::shared_ptr<Dataset> Normal(std::uint64_t n, std::uint64_t capacity = 0) {
    return Known(NormalDs(n, capacity));
  }
  std::shared_ptr<Dataset> Resync(std::uint64_t n) { return Known(ResyncDs(n)); }

  // Makes normal datasets and pushes them; the pipeline is their only owner afterwards.
  DS_ERROR Push(std::uint64_t n, bool flag = false) { return m_pipeline.PushDs(Normal(n), flag); }
  void PushAll(std::initializer_list<std::uint64_t> numbers) {
    for (const std::uint64_t n : numbers) ASSERT_EQ(Push(n), DS_ERROR_OK) << n;
  }
  // The same, each closed at once: they go on into the transmit pipe.
  void SendAll(std::initializer_list<std::uint64_t> numbers) {
    for (const std::uint64_t n : numbers) {
      ASSERT_EQ(Push(n), DS_ERROR_OK) << n;
      m_pipeline.BumpDs();
    }
  }
  DS_ERROR Write(InternalData buf) { return m_pipeline.PushBuf(buf, buf.length); }

  // Returns the trace since the last call.
  std::string Take() {
    std::string trace;
    for (const std::string& line : m_log.Take()) trace += Named(line) + "\n";
    return trace;
  }
  void Forget() { m_log.Take(); }

  // Returns what `act` wrote, and nothing from before it.
  template <class Act>
  std::string TraceOf(Act act) {
    Forget();
    act();
    return Take();
  }

  // The four queues in full: "recv 3 2 xmit 1 done 1s flush 4". A done record shows d (done),
  // f (fingerprinted), y (success), e (empty), s (stored), x (store error); a flush record shows
  // F (flushed), f (fingerprinted), y (success).
  std::string Queues() const {
    std::string text = "recv";
    for (const auto& ds : m_pipeline.m_recvPipe) text += " " + std::to_string(ds->GetN());
    text += " xmit";
    for (const auto& ds : m_pipeline.m_xmitPipe) text += " " + std::to_string(ds->GetN());
    text += " done";
    for (const DoneInfo& r : m_pipeline.m_donePipe) {
      text += " " + std::to_string(r.n) + Flag(r.done, "d") + Flag(r.fingerprinted, "f") +
              Flag(r.success, "y") + Flag(r.empty, "e") + Flag(r.stored, "s") +
              Flag(r.storeError, "x");
    }
    text += " flush";
    for (const FlushInfo& r : m_pipeline.m_flushPipe) {
      text += " " + std::to_string(r.n) + Flag(r.flushed, "F") + Flag(r.fingerprinted, "f") +
              Flag(r.success, "y");
    }
    return text;
  }

  LogCapture m_log;
  Pipeline m_pipeline;
  std::function<int(std::shared_ptr<Dataset>&)> m_onTransmit;
  std::function<void(unsigned long)> m_onDone;
  std::function<void(unsigned long)> m_onFlushed;

 private:
  static std::string Flag(bool set, const char* letter) { return set ? letter : ""; }

  static void Replace(std::string& line, const std::string& from, const std::string& to) {
    for (std::size_t at = line.find(from); at != std::string::npos; at = line.find(from, at)) {
      const std::size_t end = at + from.size();
      if (end < line.size() && std::isxdigit(static_cast<unsigned char>(line[end])) != 0) {
        at = end;  // the beginning of a longer number
        continue;
      }
      line.replace(at, from.size(), to);
      at += to.size();
    }
  }

  std::string Named(std::string line) const {
    if (line.starts_with("N host ")) line.replace(0, 6, ">");
    for (const auto& [address, n] : m_names) Replace(line, address, rec::At(n));
    Replace(line, Ptr(&m_pipeline), "@pipe");
    const std::string cursor = "enumerator: 0x";
    if (const std::size_t at = line.find(cursor); at != std::string::npos) {
      const std::size_t begin = at + cursor.size() - 2;
      line.replace(begin, line.find(' ', begin) - begin, "@cursor");
    }
    return line;
  }

  std::map<std::string, std::uint64_t> m_names;
  std::vector<std::weak_ptr<Dataset>> m_known;
};

#endif  // PENSTOCK_TESTS_SUPPORT_PIPELINE_RIG_H_
