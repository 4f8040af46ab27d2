// SPDX-License-Identifier: Apache-2.0
#include "penstock/host/coalescer.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "host/cover_index.h"

namespace {

// Ends beyond 2^64 - 1 are cut off there: no volume reaches that far.
Span SpanOf(const InternalData& buf) {
  const std::uint64_t room = std::numeric_limits<std::uint64_t>::max() - buf.offset;
  return {buf.offset, buf.offset + std::min<std::uint64_t>(buf.length, room)};
}

}  // namespace

Coalescer::Coalescer(const UuidT& volume)
    : m_volume(volume), m_index(std::make_unique<CoverIndex>()) {}

Coalescer::~Coalescer() = default;

void Coalescer::AddData(const InternalData& buf) {
  const Span span = SpanOf(buf);
  m_buffers.push_back(buf);
  const auto item = std::prev(m_buffers.end());
  try {
    m_index->Insert(span, item);
  } catch (...) {
    m_buffers.pop_back();
    throw;
  }
  m_index->EraseCovered(span, item, m_buffers);
  m_pending = true;
}

std::size_t Coalescer::Count() const { return m_buffers.size(); }
const std::list<InternalData>& Coalescer::Buffers() const { return m_buffers; }
void Coalescer::ResetPending() { m_pending = false; }
bool Coalescer::Pending() const { return m_pending; }
