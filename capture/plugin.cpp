// SPDX-License-Identifier: Apache-2.0
// The plugin of nbdkit: each volume is an export, and what is written to it is captured.
//
//   nbdkit penstock group=shop to=backup:7000 state=/var/lib/penstock-shop tls-psk=key
//   db=/dev/vg/db
//
// Everything that serves NBD (sockets, TLS, filters, its log) is nbdkit's.
#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "capture/hang_up.h"
#include "capture/live_source.h"
#include "capture/plugin_config.h"
#include "penstock/version.h"
#include "replicator/block_memory.h"
#include "replicator/files.h"
#include "replicator/keep_memory.h"
#include "replicator/log.h"

#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL

namespace {

using penstock::LiveSource;

penstock::PluginConfig g_config;
std::unique_ptr<LiveSource> g_source;
std::unique_ptr<penstock::HangUp> g_hangUp;

// An open export.
struct Export {
  std::size_t volume = 0;
};

std::size_t VolumeOf(void* handle) { return static_cast<Export*>(handle)->volume; }

int Refuse(const std::string& why) {
  nbdkit_error("%s", why.c_str());
  return -1;
}

// Nothing thrown may leave a call of nbdkit's.
template <class Call>
int Guarded(const Call& call) {
  int error = EIO;
  try {
    error = call();
  } catch (const std::exception& thrown) {
    nbdkit_error("unexpected: %s", thrown.what());
  }
  if (error == 0) return 0;
  nbdkit_set_error(error);
  nbdkit_error("%s", penstock::ErrnoText(error).c_str());
  return -1;
}

// --- Configuration. ---

int Config(const char* key, const char* value) {
  const auto fault = g_config.Take(key, value);
  return fault.empty() ? 0 : Refuse(fault);
}

int ConfigComplete() {
  penstock::LiveOptions options;
  auto fault = g_config.Finish(options);
  penstock::KeepFreedMemory(options.memory / 4);
  penstock::PoolBlocks(options.memory);
  if (fault.empty()) fault = LiveSource::Open(std::move(options), g_source);
  return fault.empty() ? 0 : Refuse(fault);
}

// Threads don't outlive a fork: they are made behind it. The sockets that nbdkit listens on are
// there by now, and the source's own are not.
int AfterFork() {
  g_hangUp = std::make_unique<penstock::HangUp>();
  if (const auto fault = g_hangUp->Start(); !fault.empty()) {
    penstock::Log(penstock::Severity::kWarning, "a stop will wait for idle guests: " + fault);
  }
  const auto fault = g_source->Start();
  return fault.empty() ? 0 : Refuse(fault);
}

void Cleanup() {
  g_hangUp.reset();
  if (g_source) g_source->Stop();
}

void Unload() { g_source.reset(); }

// --- Exports. ---

int ListExports(int /*readonly*/, int /*isTls*/, struct nbdkit_exports* exports) {
  for (std::size_t i = 0; i < g_source->Volumes(); ++i) {
    if (nbdkit_add_export(exports, g_source->Name(i).c_str(), nullptr) != 0) return -1;
  }
  return 0;
}

const char* DefaultExport(int /*readonly*/, int /*isTls*/) {
  return g_source->Volumes() == 1 ? g_source->Name(0).c_str() : "";
}

void* Open(int /*readonly*/) {
  const char* const asked = nbdkit_export_name();
  std::string name = asked == nullptr ? "" : asked;
  if (name.empty() && g_source->Volumes() == 1) name = g_source->Name(0);
  const int volume = g_source->Find(name);
  if (volume < 0) {
    nbdkit_error("there is no volume \"%s\"; ask for the list of exports",
                 penstock::Escape(name, 64).c_str());
    return nullptr;
  }
  return new Export{static_cast<std::size_t>(volume)};
}

void Close(void* handle) { delete static_cast<Export*>(handle); }

int64_t GetSize(void* handle) { return static_cast<int64_t>(g_source->Size(VolumeOf(handle))); }

int Yes(void* /*handle*/) { return 1; }
int CanFua(void* /*handle*/) { return NBDKIT_FUA_NATIVE; }
int CanCache(void* /*handle*/) { return NBDKIT_CACHE_EMULATE; }

int BlockSize(void* /*handle*/, uint32_t* minimum, uint32_t* preferred, uint32_t* maximum) {
  *minimum = 1;
  *preferred = 4096;
  *maximum = 32U << 20U;
  return 0;
}

// --- Requests. ---

int Pread(void* handle, void* buffer, uint32_t count, uint64_t offset, uint32_t /*flags*/) {
  return Guarded([&] {
    return g_source->Read(VolumeOf(handle), offset, {static_cast<std::uint8_t*>(buffer), count});
  });
}

int Pwrite(void* handle, const void* buffer, uint32_t count, uint64_t offset, uint32_t flags) {
  return Guarded([&] {
    return g_source->Write(VolumeOf(handle), offset,
                           {static_cast<const std::uint8_t*>(buffer), count},
                           (flags & NBDKIT_FLAG_FUA) != 0);
  });
}

// A file's zeros are made by punching; what can't do that would take as long as writing does.
int Zero(void* handle, uint32_t count, uint64_t offset, uint32_t flags) {
  return Guarded([&] {
    const std::size_t volume = VolumeOf(handle);
    if ((flags & NBDKIT_FLAG_FAST_ZERO) != 0 && g_source->File(volume).IsDevice()) {
      return EOPNOTSUPP;
    }
    return g_source->Zero(volume, offset, count, (flags & NBDKIT_FLAG_FUA) != 0);
  });
}

int Trim(void* handle, uint32_t count, uint64_t offset, uint32_t flags) {
  return Guarded([&] {
    return g_source->Zero(VolumeOf(handle), offset, count, (flags & NBDKIT_FLAG_FUA) != 0);
  });
}

int Flush(void* handle, uint32_t /*flags*/) {
  return Guarded([&] { return g_source->Flush(VolumeOf(handle)); });
}

// Data and holes as the file system knows them.
int Extents(void* handle, uint32_t count, uint64_t offset, uint32_t flags,
            struct nbdkit_extents* extents) {
  return Guarded([&] {
    const auto& file = g_source->File(VolumeOf(handle));
    const std::uint64_t end = std::min<std::uint64_t>(offset + count, file.Size());
    for (std::uint64_t at = offset; at < end;) {
      std::uint64_t data = 0;
      std::uint64_t hole = 0;
      if (!file.NextData(at, data).empty()) return EIO;
      if (data > at) {
        const std::uint64_t length = std::min(data, end) - at;
        if (nbdkit_add_extent(extents, at, length, NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO) != 0) {
          return errno;
        }
        at += length;
      } else {
        if (!file.NextHole(at, hole).empty()) return EIO;
        const std::uint64_t length = std::min(hole, end) - at;
        if (nbdkit_add_extent(extents, at, length, 0) != 0) return errno;
        at += length;
      }
      if ((flags & NBDKIT_FLAG_REQ_ONE) != 0) break;
    }
    return 0;
  });
}

struct nbdkit_plugin MakePlugin() {
  struct nbdkit_plugin plugin {};
  plugin.name = "penstock";
  plugin.longname = "penstock live capture";
  plugin.version = PENSTOCK_VERSION_STRING;
  plugin.description = "Serves volumes, and keeps a second copy of them at a penstock target";
  plugin.config = Config;
  plugin.config_complete = ConfigComplete;
  plugin.config_help = penstock::PluginConfig::Help();
  plugin.magic_config_key = nullptr;
  plugin.after_fork = AfterFork;
  plugin.cleanup = Cleanup;
  plugin.unload = Unload;
  plugin.list_exports = ListExports;
  plugin.default_export = DefaultExport;
  plugin.open = Open;
  plugin.close = Close;
  plugin.get_size = GetSize;
  plugin.can_write = Yes;
  plugin.can_flush = Yes;
  plugin.can_trim = Yes;
  plugin.can_zero = Yes;
  plugin.can_fast_zero = Yes;
  plugin.can_extents = Yes;
  plugin.can_multi_conn = Yes;
  plugin.can_fua = CanFua;
  plugin.can_cache = CanCache;
  plugin.block_size = BlockSize;
  plugin.pread = Pread;
  plugin.pwrite = Pwrite;
  plugin.zero = Zero;
  plugin.trim = Trim;
  plugin.flush = Flush;
  plugin.extents = Extents;
  plugin.errno_is_preserved = 0;
  return plugin;
}

struct nbdkit_plugin plugin = MakePlugin();

}  // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
