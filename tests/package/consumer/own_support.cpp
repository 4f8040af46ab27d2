// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <ostream>
#include <string>

#include <penstock/host.h>

// A host support of the stranger's own, as small as it may be: no folding, no files, log records to
// standard error.

class CoverIndex {};

Coalescer::Coalescer(const UuidT& volume) : m_volume(volume) {}
Coalescer::~Coalescer() = default;
void Coalescer::AddData(const InternalData& buf) { m_buffers.push_back(buf); }
std::size_t Coalescer::Count() const { return m_buffers.size(); }
const std::list<InternalData>& Coalescer::Buffers() const { return m_buffers; }
void Coalescer::ResetPending() { m_pending = false; }
bool Coalescer::Pending() const { return m_pending; }

UUID UUID::MakeUUID(const UuidT& uuid) { return UUID(uuid.bytes); }
std::string UUID::String() const { return "volume"; }
std::ostream& operator<<(std::ostream& out, const UUID& uuid) { return out << uuid.String(); }

CLogger& CLogger::GetInstance() {
  static CLogger logger;
  return logger;
}
int CLogger::GetLevel() const { return LOG_INFO; }
void CLogger::LogEx(int, const char*, unsigned long long, const char* function, int,
                    const char* format, ...) {
  std::fprintf(stderr, "own support: %s %s\n", function, format);
}
std::string GetMsgPrefix() { return {}; }

QRVTSP TSP_RequestID;
std::uint64_t* QRVTSP::get() const {
  thread_local std::uint64_t id = 0;
  return &id;
}

bool FileSystem::CreateDirPath(const std::string&) { return false; }
std::ostream& operator<<(std::ostream& out, DPPCmdType) { return out; }
std::shared_ptr<DPPCmdHeader> CreateDppHeader(unsigned, DPPCmdType, DPPCmdHeaderFlags) {
  return nullptr;
}
