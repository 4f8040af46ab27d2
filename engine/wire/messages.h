// SPDX-License-Identifier: Apache-2.0
// The payloads of the frames, as structures. Numbers are little-endian; a text is its length (u16)
// and its bytes. Encode() never fails for a structure within the limits; Decode() believes nothing:
// it takes exactly the payload's bytes, checks every count against the bytes that are there, every
// name against the rule for names, and says what is wrong.
#ifndef PENSTOCK_ENGINE_WIRE_MESSAGES_H_
#define PENSTOCK_ENGINE_WIRE_MESSAGES_H_

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "codec/compare.h"
#include "codec/hash.h"
#include "codec/run_hasher.h"
#include "engine/wire/frame.h"
#include "penstock/host/uuid.h"

namespace penstock {

inline constexpr std::uint16_t kProtocolVersion = 1;
inline constexpr std::size_t kMaxVolumes = 256;     // in a group
inline constexpr std::size_t kMaxNameBytes = 64;    // of a group or volume
inline constexpr std::size_t kMaxTextBytes = 1024;  // of an error's text
inline constexpr std::size_t kMaxPointNameBytes = 200;

using Nonce = std::array<std::uint8_t, 16>;

// [A-Za-z0-9][A-Za-z0-9._-]{0,63}
bool IsValidName(std::string_view name);

// The identifiers that the names stand for: the first 16 bytes of SHA-256 of the group's name, and
// of the group's name, a slash and the volume's.
UuidT GroupId(std::string_view group);
UuidT VolumeId(std::string_view group, std::string_view volume);

enum class Purpose : std::uint8_t {
  kReplicate = 0,  // take up the group, or go on with it
  kVerify = 1,     // compare only
  kStatus = 2,     // ask for the status only
};

struct HelloVolume {
  std::string name;
  std::uint64_t size = 0;  // bytes
};

// version:u16 purpose:u8 epoch:u64 nonce:16 fingerprintSeed:u64 runKey:16 group:text count:u16
// (name:text size:u64){count}
struct Hello {
  std::uint16_t version = kProtocolVersion;
  Purpose purpose = Purpose::kReplicate;
  std::uint64_t epoch = 0;  // 0: take the group up anew; else go on in this epoch
  Nonce nonce{};
  std::uint64_t fingerprintSeed = 0;  // of this connection's 64-bit fingerprints
  RunKey runKey{};                    // of this connection's strong ones
  std::string group;
  std::vector<HelloVolume> volumes;  // their order is their index on this connection
};

enum class VolumeState : std::uint8_t {
  kNew = 0,          // reads as zeros
  kSyncing = 1,      // a resync is under way: it is no point of the source
  kGood = 2,         // as the source was at `goodAt`
  kNeedsResync = 3,  // something was lost: it is no point of the source
  kHeld =
      4,  // as the source was at `goodAt`, but a new source has the group and did not compare yet
};
const char* Text(VolumeState state);  // "new", "syncing", "good", "needs resync", "good"

struct WelcomeVolume {
  VolumeState state = VolumeState::kNew;
  std::uint64_t goodAt = 0;
  std::uint64_t size = 0;  // bytes
};

// version:u16 epoch:u64 nonce:16 durable:u64 applied:u64 flushed:u64 chain:32 window:u64 count:u16
// (state:u8 goodAt:u64 size:u64){count}
struct Welcome {
  std::uint16_t version = kProtocolVersion;
  std::uint64_t epoch = 0;  // the one that this connection is in
  Nonce nonce{};
  std::uint64_t durable = 0;
  std::uint64_t applied = 0;
  std::uint64_t flushed = 0;
  Digest chain{};                      // of `durable`
  std::uint64_t window = 0;            // bytes that may be sent beyond the acknowledged ones
  std::vector<WelcomeVolume> volumes;  // as in HELLO
};

// The START record (type 56) is OM_DP::DatasetStartv2; its entries are the dataset's volumes.
inline constexpr std::uint32_t kStartSyncComplete = 1;  // flags: every syncing volume is complete
inline constexpr std::uint32_t kStartConsistent = 2;    // flags: an application-consistent point
inline constexpr std::uint32_t kStartPassBegins = 4;  // flags: the first of its volume in a resync
inline constexpr std::uint16_t kStartFormatVersion = 1;
struct DatasetStart {
  std::uint64_t n = 0;
  std::uint64_t timestampMs = 0;
  UuidT group;
  std::uint32_t datasetType = 0;  // 0 normal, 2 resync
  std::uint32_t flags = 0;
  std::vector<UuidT> volumes;
};

// n:u64 blocks:u32 extents:u64 rawBytes:u64 chain:32 name:text
struct DatasetEnd {
  std::uint64_t n = 0;
  std::uint32_t blocks = 0;
  std::uint64_t extents = 0;
  std::uint64_t rawBytes = 0;
  Digest chain{};    // SHA-256(chain of the dataset before, digest of this one)
  std::string name;  // of the point behind it; empty: it has none
};
// Whether a point may be called so: printable ASCII, 1 to kMaxPointNameBytes of it.
bool IsPointName(std::string_view name);

// ACK, DONE, FLUSHED. n:u64 success:u8 empty:u8 chain:32
struct Report {
  std::uint64_t n = 0;
  bool success = true;
  bool empty = false;  // the dataset held no block
  Digest chain{};      // of n
};

// n:u64 volume:u8 offset:u64 length:u32 firstBlock:u32 fingerprints:u64{(length + 4095) / 4096}
struct Query {
  std::uint64_t n = 0;           // the dataset, or any number in a connection for verifying
  std::uint8_t volume = 0;       // index in HELLO
  std::uint64_t offset = 0;      // bytes, in the volume
  std::uint32_t length = 0;      // bytes, 1 to kWindowBytes
  std::uint32_t firstBlock = 0;  // within the dataset
  std::vector<std::uint64_t> fingerprints;
};

// n:u64 volume:u8 offset:u64 length:u32 count:u16 (firstBlock:u16 blocks:u16 equal:u8 [strong:20])
struct Answer {
  std::uint64_t n = 0;
  std::uint8_t volume = 0;
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
  std::vector<Run> runs;  // cover the window; `strong` only of equal ones
};

// token:u64
struct Ping {
  std::uint64_t token = 0;
};

// What a source says of itself, for the target's status: nothing is decided by it.
// closed:u64 sent:u64 waiting:u64 count:u16 (passed:u64){count}
struct Progress {
  std::uint64_t closed = 0;           // the newest closed dataset
  std::uint64_t sent = 0;             // the newest one that was sent to its end
  std::uint64_t waiting = 0;          // bytes of volume data that are not acknowledged
  std::vector<std::uint64_t> passed;  // of each volume, as in HELLO: bytes that the resync is over

  friend bool operator==(const Progress&, const Progress&) = default;
};

enum class ErrorCode : std::uint16_t {
  kProtocol = 1,  // a frame that makes no sense here
  kDamaged = 2,   // a frame or block that was damaged on the way
  kRefused = 3,   // no such grant
  kFenced = 4,    // a newer source has the group
  kFork = 5,      // another history at this number
  kNoSpace = 6,   // no room at the target: try again later
  kVolume = 7,    // unknown volume, or its size doesn't fit
  kBusy = 8,      // too many connections, or the group is being recovered
  kFailed = 9,    // the target failed and stopped
  kVersion = 10,  // no common protocol version
  kTimeout = 11,  // nothing came for too long
};
const char* Text(ErrorCode code);

// code:u16 n:u64 text:text
struct Error {
  ErrorCode code = ErrorCode::kProtocol;
  std::uint64_t n = 0;  // the dataset concerned, or 0
  std::string text;     // at most kMaxTextBytes; printable ASCII after Decode
};

// STATUS_QUERY and BYE have no payload; STATUS_REPLY's is JSON text.

Frame Encode(const Hello& m);
Frame Encode(const Welcome& m);
Frame Encode(const DatasetStart& m);
Frame Encode(const DatasetEnd& m);
Frame Encode(FrameType type, const Report& m);  // kAck, kDone, kFlushed
Frame Encode(const Query& m);
Frame Encode(const Answer& m);
Frame Encode(FrameType type, const Ping& m);  // kPing, kPong
Frame Encode(const Progress& m);
Frame Encode(const Error& m);
Frame EncodeBye();
Frame EncodeStatusQuery();
Frame EncodeStatusReply(std::string_view json);

// Each returns an empty text, or what is wrong with the payload: `out` is then unspecified.
std::string Decode(Bytes payload, Hello& out);
std::string Decode(Bytes payload, Welcome& out);
std::string Decode(Bytes payload, DatasetStart& out);
std::string Decode(Bytes payload, DatasetEnd& out);
std::string Decode(Bytes payload, Report& out);
std::string Decode(Bytes payload, Query& out);
std::string Decode(Bytes payload, Answer& out);
std::string Decode(Bytes payload, Ping& out);
std::string Decode(Bytes payload, Progress& out);
std::string Decode(Bytes payload, Error& out);

}  // namespace penstock

#endif  // PENSTOCK_ENGINE_WIRE_MESSAGES_H_
