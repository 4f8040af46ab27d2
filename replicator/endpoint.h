// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_REPLICATOR_ENDPOINT_H_
#define PENSTOCK_REPLICATOR_ENDPOINT_H_

#include <cstdint>
#include <string>

namespace penstock {

// Where to listen, or what to connect to.
struct Endpoint {
  bool isUnix = false;
  std::string host;        // of TCP: a name or a numeric address, without brackets
  std::uint16_t port = 0;  // 0 lets the system choose, for listening
  std::string path;        // of UNIX

  // ADDR:PORT, [ADDR]:PORT for IPv6, or unix:PATH. Returns an empty text, or what is wrong with it.
  static std::string Parse(const std::string& text, Endpoint& out);
  std::string Text() const;  // as Parse takes it
  // A UNIX socket, or an address of which IsLoopback is true.
  bool IsLocal() const;

  friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

// Whether a numeric address never leaves the machine: 127.0.0.0/8, ::1 and its v4-mapped form. The
// word localhost counts; whoever connects to it looks at the address again that it stands for.
bool IsLoopback(const std::string& address);

}  // namespace penstock

#endif  // PENSTOCK_REPLICATOR_ENDPOINT_H_
