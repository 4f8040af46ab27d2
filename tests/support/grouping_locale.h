// SPDX-License-Identifier: Apache-2.0
#ifndef PENSTOCK_TESTS_SUPPORT_GROUPING_LOCALE_H_
#define PENSTOCK_TESTS_SUPPORT_GROUPING_LOCALE_H_

#include <locale>
#include <string>

// While it lives, the process's locale writes numbers as many people do: 1.234.567,5. A text form
// that follows it shows.
class GroupingLocale {
 public:
  GroupingLocale()
      : m_before(std::locale::global(std::locale(std::locale::classic(), new Punctuation))) {}
  ~GroupingLocale() { std::locale::global(m_before); }
  GroupingLocale(const GroupingLocale&) = delete;
  GroupingLocale& operator=(const GroupingLocale&) = delete;

 private:
  class Punctuation : public std::numpunct<char> {
   protected:
    char do_thousands_sep() const override { return '.'; }
    char do_decimal_point() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
    std::string do_truename() const override { return "ja"; }
    std::string do_falsename() const override { return "nein"; }
  };

  std::locale m_before;
};

#endif  // PENSTOCK_TESTS_SUPPORT_GROUPING_LOCALE_H_
