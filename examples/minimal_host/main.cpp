// SPDX-License-Identifier: Apache-2.0
#include <xxhash.h>

#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <system_error>

#include "minimal_host/block_diff.h"
#include "minimal_host/demo.h"
#include "minimal_host/failure.h"
#include "minimal_host/host.h"
#include "minimal_host/options.h"
#include "minimal_host/temp_dir.h"
#include "minimal_host/verify.h"
#include "penstock/host.h"
#include "penstock/penstock.h"
#include "penstock/version.h"

namespace {

void PrintLogFrom(int level) {
  CLogger::GetInstance().SetLevel(level);
  CLogger::GetInstance().SetSink([](const LogRecord& record) {
    std::clog << record.level << ' ' << record.function << ' ' << record.text + '\n';
  });
}

// A volume has one identifier for good. A file's is made of its name here; a real host keeps it.
UuidT VolumeOf(const std::string& path) {
  const std::string name = std::filesystem::path(path).filename().string();
  const XXH128_hash_t hash = XXH3_128bits(name.data(), name.size());
  UuidT volume;
  std::memcpy(volume.bytes.data(), &hash, sizeof(hash));
  return volume;
}

// An earlier run's dataset files would be in the way: a dataset file is never overwritten.
void RequireEmpty(const std::string& dir) {
  std::error_code error;
  const bool exists = std::filesystem::exists(dir, error);
  if (exists && (!std::filesystem::is_directory(dir, error) ||
                 !std::filesystem::is_empty(dir, error) || error)) {
    throw Failure("the spool '" + dir + "' is not an empty directory: name a new one with --spool");
  }
}

void Run(Options options) {
  const TempDir temp;
  if (options.demo) {
    options.oldPath = temp.Path() + "/old.img";
    options.newPath = temp.Path() + "/new.img";
    MakeDemoImages(options.oldPath, options.newPath);
  }
  if (options.spool.empty()) {
    options.spool = temp.Path() + "/spool";
  } else {
    RequireEmpty(options.spool);
  }
  BlockDiff diff(options.oldPath, options.newPath, options.blockBytes);
  const UuidT volume = VolumeOf(options.newPath);
  std::cout << "volume " << UUID::MakeUUID(volume) << ", the changed blocks of " << options.newPath
            << '\n';

  Host host(options.spool, volume, {options.datasetBlocks, options.blockBytes, options.window},
            std::cout);
  while (const auto block = diff.Next()) host.Write(*block);
  host.Finish();
  std::cout << host.Blocks() << " of " << diff.BlocksSeen() << " blocks changed: " << host.Bytes()
            << " bytes in " << host.Datasets()
            << (host.Datasets() == 1 ? " dataset\n" : " datasets\n");

  Verify({options.oldPath, options.newPath, temp.Path() + "/copy", options.spool, volume,
          host.Datasets()});
  std::cout << "identical\n";
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options = ParseOptions({argv + 1, argv + argc});
    if (options.logLevel) PrintLogFrom(*options.logLevel);
    if (options.help) {
      std::cout << HelpText();
    } else if (options.version) {
      std::cout << "minimal_host " << PENSTOCK_VERSION_STRING << '\n';
    } else {
      Run(options);
    }
    if (!std::cout.flush()) throw Failure("standard output can't be written: check where it goes");
    return 0;
  } catch (const UsageError& error) {
    std::cerr << "minimal_host: " << error.what() << '\n';
    return 2;
  } catch (const std::exception& error) {
    std::cout.flush();
    std::cerr << "minimal_host: " << error.what() << '\n';
    return 1;
  }
}
