// SPDX-License-Identifier: Apache-2.0
// The program's log, on standard error: its own records, and those of the library.
#ifndef PENSTOCK_REPLICATOR_LOG_H_
#define PENSTOCK_REPLICATOR_LOG_H_

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace penstock {

enum class Severity {
  kTrace,    // the library's detail
  kDebug,    // the library's milestones of datasets, and what the adapters do
  kInfo,     // what an operator wants to know: the default
  kWarning,  // something was refused, or is tried again
  kError,    // something failed
};

struct LogOptions {
  Severity level = Severity::kInfo;
  bool json = false;  // one object a line
};

// "trace", "debug", "info", "warning" and "error"; "text" and "json". Returns an empty text, or
// what may be given instead.
std::string ParseLogLevel(std::string_view text, Severity& out);
std::string ParseLogFormat(std::string_view text, bool& json);

// Sets the log up, and takes the library's records into it: its errors as errors, its notices as
// debug, the rest as trace. May be called again. Before the first call, records of kInfo and above
// are written as text.
//
// Threads: this one alone, no other that logs; Log from any.
void SetUpLog(const LogOptions& options);

// Where lines go instead of standard error, each with its newline; empty: back. As SetUpLog.
void SetLogOutput(std::function<void(std::string_view line)> output);

using LogFields = std::initializer_list<std::pair<std::string_view, std::string>>;

// Writes a record: the text, then `name=value` for each field (in JSON, members). Both are escaped:
// a peer's text may be given as it is. Never fails towards its caller.
void Log(Severity severity, std::string_view text, LogFields fields = {});
bool IsLogged(Severity severity);  // whether a record would be written

// Printable ASCII stays; everything else and the backslash becomes \xNN. At most `limit` bytes of
// the text are taken, and "..." says so.
std::string Escape(std::string_view text, std::size_t limit = 4096);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_LOG_H_
