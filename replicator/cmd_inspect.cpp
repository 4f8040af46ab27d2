// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "codec/dataset_file.h"
#include "replicator/cmd.h"
#include "replicator/log.h"
#include "replicator/options.h"
#include "replicator/progress.h"
#include "replicator/runner_journal.h"

namespace penstock {

namespace {

using Json = nlohmann::ordered_json;

struct InspectFlags {
  std::vector<std::string> files;
  bool records = false;
  bool json = false;
};

// What is in one file.
struct Inspection {
  std::string path;
  std::uint64_t size = 0;
  DatasetFileStart start;
  bool hasStart = false;
  Json records = Json::array();
  DatasetFileTotals totals;
  DatasetFileFault fault;
};

const char* CodecName(std::uint8_t codec) {
  switch (static_cast<Codec>(codec)) {
    case Codec::kZero: return "zero";
    case Codec::kRaw: return "raw";
    case Codec::kLz4: return "lz4";
    case Codec::kZstd: return "zstd";
  }
  return "unknown";
}

std::string IdText(const UuidT& id) { return UUID::MakeUUID(id).String(); }

Json RecordJson(const OM_DP::CompressedData& block, std::uint64_t at, std::uint64_t size) {
  Json extents = Json::array();
  std::vector<Extent> list;
  CheckBlock(block, size, ~std::uint64_t{0}, list);
  for (const Extent& extent : list) extents.push_back({extent.offset, extent.length});
  return {{"at", at},
          {"volume", block.volumeIndex},
          {"codec", CodecName(block.codec)},
          {"rawBytes", std::uint32_t{block.rawLength}},
          {"storedBytes", std::uint32_t{block.length}},
          {"extents", std::move(extents)}};
}

// Returns an empty text, or why it can't be read at all.
std::string Inspect(const std::string& path, bool withRecords, Inspection& out) {
  out.path = path;
  JournalReader file;
  if (auto fault = file.Open(path); !fault.empty()) return fault;
  out.size = file.Size();
  DatasetFileVisitor visitor;
  visitor.start = [&](const DatasetFileStart& start) {
    out.start = start;
    out.hasStart = true;
  };
  if (withRecords) {
    visitor.block = [&](const BlockPtr& block, std::uint64_t at) {
      out.records.push_back(RecordJson(*block, at, RecordBytes(*block).size()));
      return true;
    };
  }
  out.fault = ReadDatasetFile(file, visitor, &out.totals);
  return {};
}

Json ToJson(const Inspection& found, bool withRecords) {
  Json object{{"file", Escape(found.path)},
              {"bytes", found.size},
              {"whole", found.totals.whole},
              {"blocks", found.totals.blocks},
              {"extents", found.totals.extents},
              {"rawBytes", found.totals.rawBytes},
              {"storedBytes", found.totals.storedBytes}};
  if (found.hasStart) {
    object["n"] = found.start.n;
    object["timestampMs"] = found.start.timestampMs;
    object["datasetType"] = found.start.datasetType;
    object["flags"] = found.start.flags;
    object["group"] = IdText(found.start.group);
    object["volumes"] = Json::array();
    for (const UuidT& id : found.start.volumes) object["volumes"].push_back(IdText(id));
  }
  if (!found.fault.text.empty()) {
    object["damage"] = {{"at", found.fault.offset}, {"what", found.fault.text}};
  }
  if (withRecords) object["records"] = found.records;
  return object;
}

std::string RecordText(const Json& record) {
  std::string text = "  @" + record["at"].dump() + ": volume " + record["volume"].dump() + ", " +
                     record["codec"].get<std::string>() + ", " + record["rawBytes"].dump() +
                     " bytes as " + record["storedBytes"].dump() + ":";
  for (const Json& extent : record["extents"]) {
    text += " " + extent[0].dump() + "+" + extent[1].dump();
  }
  return text + "\n";
}

std::string ToText(const Inspection& found) {
  std::string text = Escape(found.path) + ": ";
  if (found.hasStart) {
    const bool isResync = found.start.datasetType == 2;
    text += "dataset " + std::to_string(found.start.n) + (isResync ? ", resync, " : ", ") +
            std::to_string(found.start.volumes.size()) + " volumes, ";
  }
  text += std::to_string(found.totals.blocks) + " blocks, " + std::to_string(found.totals.extents) +
          " extents, " + HumanBytes(found.totals.rawBytes) + " as " +
          HumanBytes(found.totals.storedBytes) + " in " + HumanBytes(found.size) + "\n";
  for (const Json& record : found.records) text += RecordText(record);
  if (found.fault.text.empty()) return text + "  whole: every hash is right\n";
  return text + "  DAMAGED at byte " + std::to_string(found.fault.offset) + ": " +
         found.fault.text + "\n";
}

int RunInspect(const InspectFlags& flags) {
  int code = kExitDone;
  Json all = Json::array();
  for (const std::string& path : flags.files) {
    Inspection found;
    if (auto fault = Inspect(path, flags.records, found); !fault.empty()) {
      code = Complain(kExitRefused, fault);
      continue;
    }
    if (!found.fault.text.empty() && code == kExitDone) code = kExitDifferent;
    if (flags.json) {
      all.push_back(ToJson(found, flags.records));
    } else {
      const std::string text = ToText(found);
      std::fwrite(text.data(), 1, text.size(), stdout);
    }
  }
  if (flags.json) std::printf("%s\n", Json{{"files", std::move(all)}}.dump().c_str());
  return code;
}

}  // namespace

void AddInspect(CLI::App& program, Chosen& chosen) {
  auto flags = std::make_shared<InspectFlags>();
  CLI::App* command = program.add_subcommand(
      "inspect",
      "Reads dataset files: what is in them, whether every hash is right, what is damaged.");
  command->add_option("FILE", flags->files, "dataset files")->required();
  command->add_flag("--records", flags->records, "a line for each block");
  command->add_flag("--json", flags->json, "as JSON");
  command->footer(
      "Exit codes: 0 whole, 1 damaged, 2 can't be read.\n"
      "Example: penstock inspect --records 0000000000000007.ds");
  command->callback([flags, &chosen] { chosen = [flags] { return RunInspect(*flags); }; });
}

}  // namespace penstock
