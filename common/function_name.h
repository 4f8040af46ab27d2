// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_COMMON_FUNCTION_NAME_H_
#define PENSTOCK_COMMON_FUNCTION_NAME_H_

#include <array>
#include <cstddef>
#include <string_view>

// Where the short name lies in a pretty-function text: [begin, end). `isCall` is false for a text
// without "(", which is its own name.
struct FunctionNameSpan {
  std::size_t begin = 0;
  std::size_t end = 0;
  bool isCall = false;
};

constexpr FunctionNameSpan FindFunctionName(std::string_view pretty) {
  const std::size_t paren = pretty.find('(');
  if (paren == std::string_view::npos) return {0, pretty.size(), false};
  const std::size_t blank = pretty.substr(0, paren).rfind(' ');
  return {blank == std::string_view::npos ? 0 : blank + 1, paren, true};
}

// A function's short name, cut while compiling. Cutting it at each record would cost more than most
// of the record's pieces.
template <std::size_t N>
struct FunctionLabel {
  std::array<char, N + 2> text{};
  std::size_t size = 0;

  constexpr std::string_view View() const { return {text.data(), size}; }
};

template <std::size_t N>
constexpr FunctionLabel<N> CutFunctionName(const char (&pretty)[N]) {
  const FunctionNameSpan span = FindFunctionName(std::string_view(pretty, N - 1));
  FunctionLabel<N> label;
  for (std::size_t i = span.begin; i < span.end; ++i) label.text[label.size++] = pretty[i];
  if (span.isCall) {
    label.text[label.size++] = '(';
    label.text[label.size++] = ')';
  }
  return label;
}

#endif  // PENSTOCK_COMMON_FUNCTION_NAME_H_
