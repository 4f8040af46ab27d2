// SPDX-License-Identifier: Apache-2.0
// Goal: the short function name of a log record. Method: a table of pretty-function texts, cut both
// ways: by the exported function and, as the library's own records do, while compiling.
#include "common/function_name.h"

#include <gtest/gtest.h>

#include <string>

#include "penstock/log_proxy.h"

namespace {

TEST(FunctionName, DropsTheReturnTypeAndTheArguments) {
  EXPECT_EQ(GetFunctionName("DS_ERROR Pipeline::Ack(uint64_t, size_t*)"), "Pipeline::Ack()");
  EXPECT_EQ(GetFunctionName("void Dataset::CheckIfReadyAndCompress()"),
            "Dataset::CheckIfReadyAndCompress()");
}

TEST(FunctionName, OfATextWithoutParenthesisIsTheTextItself) {
  EXPECT_EQ(GetFunctionName("main"), "main");
  EXPECT_EQ(GetFunctionName("int main"), "int main");
  EXPECT_EQ(GetFunctionName("closed)"), "closed)");
  EXPECT_EQ(GetFunctionName(" "), " ");
}

TEST(FunctionName, OfAnEmptyTextIsEmpty) { EXPECT_EQ(GetFunctionName(""), ""); }

TEST(FunctionName, OfATextWithoutBlankIsAllBeforeTheParenthesis) {
  EXPECT_EQ(GetFunctionName("Dataset::~Dataset()"), "Dataset::~Dataset()");
  EXPECT_EQ(GetFunctionName("Pipeline::Pipeline(int,int)"), "Pipeline::Pipeline()");
}

TEST(FunctionName, IgnoresBlanksInsideTheArguments) {
  EXPECT_EQ(GetFunctionName("f(unsigned long, const char *)"), "f()");
}

TEST(FunctionName, IgnoresEverythingBehindTheFirstParenthesis) {
  EXPECT_EQ(GetFunctionName("int A::b(std::function<void (int)>) const [with T = int (*)(int)]"),
            "A::b()");
}

TEST(FunctionName, IsCutAtTheLastBlankBeforeTheParenthesis) {
  EXPECT_EQ(GetFunctionName("virtual const unsigned char * A::b(int)"), "A::b()");
}

TEST(FunctionName, IsOnlyParenthesesWhenABlankStandsDirectlyBefore) {
  EXPECT_EQ(GetFunctionName("void f (int)"), "()");
  EXPECT_EQ(GetFunctionName("("), "()");
}

TEST(FunctionName, TakesTheFirstParenthesisEvenOfAReturnType) {
  EXPECT_EQ(GetFunctionName("std::function<void()> A::b(int)"), "std::function<void()");
}

TEST(FunctionLabel, IsCutWhileCompiling) {
  static constexpr auto kLabel = CutFunctionName("DS_ERROR Pipeline::Ack(uint64_t, size_t*)");
  static_assert(kLabel.View() == "Pipeline::Ack()");
  EXPECT_EQ(kLabel.View(), "Pipeline::Ack()");
}

#define EXPECT_CUT_ALIKE(pretty)                                                \
  do {                                                                          \
    static constexpr auto kLabel = CutFunctionName((pretty));                   \
    EXPECT_EQ(std::string(kLabel.View()), GetFunctionName(pretty)) << (pretty); \
  } while (false)

TEST(FunctionLabel, IsTheSameAsTheExportedFunctions) {
  EXPECT_CUT_ALIKE("");
  EXPECT_CUT_ALIKE("main");
  EXPECT_CUT_ALIKE("int main");
  EXPECT_CUT_ALIKE("(");
  EXPECT_CUT_ALIKE("f(");
  EXPECT_CUT_ALIKE("f()");
  EXPECT_CUT_ALIKE(" f()");
  EXPECT_CUT_ALIKE("void f (int)");
  EXPECT_CUT_ALIKE("void A::B::c(int, int) const");
  EXPECT_CUT_ALIKE("std::function<void()> A::b(int)");
}

}  // namespace
