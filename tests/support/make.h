// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_SUPPORT_MAKE_H_
#define PENSTOCK_TESTS_SUPPORT_MAKE_H_

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>

#include "penstock/host.h"
#include "penstock/penstock.h"

// Small values for tests, and their text forms.

using Lines = std::vector<std::string>;

// A volume whose bytes are all 0 but the last, `id`.
inline UuidT Volume(std::uint8_t id) {
  UuidT volume;
  volume.bytes[15] = id;
  return volume;
}

inline InternalData Buf(std::uint8_t volume, std::uint64_t offset, std::uint32_t length) {
  return InternalData{Volume(volume), offset, length, nullptr, 0};
}

// The same with a payload of `length` bytes, all `fill`.
inline InternalData BufWithData(std::uint8_t volume, std::uint64_t offset, std::uint32_t length,
                                std::uint8_t fill = 0) {
  InternalData buf = Buf(volume, offset, length);
  std::shared_ptr<std::uint8_t[]> bytes(new std::uint8_t[length]);
  for (std::uint32_t i = 0; i < length; ++i) bytes[i] = fill;
  buf.data = bytes;
  return buf;
}

// A fingerprint whose bytes are all `fill`.
inline BufFingerprint Print(std::uint8_t fill) {
  BufFingerprint fp;
  fp.bytes.fill(fill);
  return fp;
}

// A unit that covers `bufs`, and says so.
inline PipeCompressedData Unit(std::initializer_list<InternalData> bufs) {
  PipeCompressedData unit;
  unit.totalBufs = bufs.size();
  for (const InternalData& buf : bufs) unit.origBuffers[buf.volume].push_back(buf);
  return unit;
}

inline std::shared_ptr<Dataset> NormalDs(std::uint64_t n, std::uint64_t capacity = 0) {
  return std::make_shared<Dataset>(n, true, capacity, 0U);
}

// A resync dataset that covers [0, `length`) of each of the volumes 1 to `volumes`.
inline std::shared_ptr<Dataset> ResyncDs(std::uint64_t n, std::uint64_t length = 1 << 20,
                                         std::uint8_t volumes = 1) {
  std::vector<FingerprintRange> ranges;
  for (std::uint8_t v = 1; v <= volumes; ++v) ranges.push_back({Volume(v), 0, length});
  return std::make_shared<Dataset>(n, ranges, length * volumes);
}

// The text form that a stream gives a value.
template <class T>
std::string Text(const T& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

// The text form of an object's address.
inline std::string Ptr(const void* address) { return Text(address); }

#endif  // PENSTOCK_TESTS_SUPPORT_MAKE_H_
