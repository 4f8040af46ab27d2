// SPDX-License-Identifier: Apache-2.0
#include "replicator/endpoint.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <algorithm>
#include <charconv>
#include <string_view>

#include "replicator/log.h"

namespace penstock {

namespace {

constexpr std::string_view kUnixPrefix = "unix:";
constexpr const char* kForms = " (use ADDR:PORT, [ADDR]:PORT or unix:PATH)";

std::string Quote(std::string_view text) { return "'" + Escape(text, 200) + "'"; }

std::string ParseUnix(const std::string& text, Endpoint& out) {
  out.isUnix = true;
  out.path = text.substr(kUnixPrefix.size());
  if (out.path.empty() || out.path.find('\0') != std::string::npos) {
    return "no path in " + Quote(text) + kForms;
  }
  if (out.path.size() >= sizeof(sockaddr_un{}.sun_path)) {
    return "the path in " + Quote(text) + " is too long for a UNIX socket: at most " +
           std::to_string(sizeof(sockaddr_un{}.sun_path) - 1) + " bytes";
  }
  return {};
}

bool ParsePort(std::string_view text, std::uint16_t& out) {
  const auto* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, out);
  return !text.empty() && stop == end && error == std::errc{};
}

bool IsHostName(std::string_view text) {
  return !text.empty() && text.size() <= 253 && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '-' || c == '_';
  });
}

bool IsV6(const std::string& text) {
  in6_addr address{};
  // A zone, for addresses of one link, is the resolver's to judge.
  return ::inet_pton(AF_INET6, text.substr(0, text.find('%')).c_str(), &address) == 1;
}

}  // namespace

std::string Endpoint::Parse(const std::string& text, Endpoint& out) {
  Endpoint result;
  if (text.rfind(kUnixPrefix, 0) == 0) {
    auto fault = ParseUnix(text, result);
    if (fault.empty()) out = std::move(result);
    return fault;
  }
  const auto colon = text.rfind(':');
  if (colon == std::string::npos) return "no port in " + Quote(text) + kForms;
  result.host = text.substr(0, colon);
  if (!ParsePort(std::string_view(text).substr(colon + 1), result.port)) {
    return "no valid port in " + Quote(text) + ": 0 to 65535" + kForms;
  }
  if (result.host.size() > 2 && result.host.front() == '[' && result.host.back() == ']') {
    result.host = result.host.substr(1, result.host.size() - 2);
    if (!IsV6(result.host)) return "no valid IPv6 address in " + Quote(text) + kForms;
  } else if (!IsHostName(result.host)) {
    return "no valid address in " + Quote(text) + kForms;
  }
  out = std::move(result);
  return {};
}

std::string Endpoint::Text() const {
  if (isUnix) return std::string(kUnixPrefix) + path;
  const bool brackets = host.find(':') != std::string::npos;
  return (brackets ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool Endpoint::IsLocal() const { return isUnix || IsLoopback(host); }

bool IsLoopback(const std::string& address) {
  if (address == "localhost") return true;
  in_addr v4{};
  if (::inet_pton(AF_INET, address.c_str(), &v4) == 1) {
    return (ntohl(v4.s_addr) >> 24U) == 127;
  }
  in6_addr v6{};
  if (::inet_pton(AF_INET6, address.c_str(), &v6) != 1) return false;
  return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127);
}

}  // namespace penstock
