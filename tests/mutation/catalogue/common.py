# SPDX-License-Identifier: Apache-2.0
"""Mutations of the records, the error codes and the log record."""

ERRORS = "common/error_code.cpp"
PROXY = "common/log_proxy.cpp"
RECORDS = "common/records.cpp"

MUTATIONS = [
    ("error-name", ERRORS,
     'return "DS_ERROR_ACK_TOO_OLD";', 'return "DS_ERROR_ACK_OUT_OF_ORDER";',
     "each code is written under its own name"),
    ("unnamed-error", ERRORS,
     'return "UNDEFINED DS_ERROR VALUE";', 'return "DS_ERROR_FAILED";',
     "a value without a name is written as undefined"),
    ("nibbles", RECORDS,
     "text += kDigits[byte & 0x0fU];", "text += kDigits[byte >> 4U];",
     "the low nibble of a fingerprint's byte is written first"),
    ("zero-offset", RECORDS,
     'buf.offset == 0 ? " o: " : " o: 0x"', 'buf.offset == 0 ? " o: 0x" : " o: 0x"',
     "offset 0 carries no base prefix"),
    ("show-base", RECORDS,
     "out.setf(std::ios_base::dec | std::ios_base::showbase,", "out.setf(std::ios_base::dec,",
     "a buffer leaves the stream's show-base flag set"),
    ("decimal-again", RECORDS,
     "out.setf(std::ios_base::dec | std::ios_base::showbase,",
     "out.setf(std::ios_base::hex | std::ios_base::showbase,",
     "a buffer puts the stream back to decimal"),
    ("threshold", PROXY,
     "if (m_level < logger.GetLevel()) return;", "if (m_level <= logger.GetLevel()) return;",
     "a record at the threshold is emitted"),
    ("leading-zero", PROXY,
     "text = text.substr(1);", "text = text.substr(0);",
     "the leading 0 of a record is dropped"),
    ("percent", PROXY,
     "std::replace(text.begin(), text.end(), '%', ' ');", "",
     "a percent sign reaches the logger as a blank"),
    ("brackets", PROXY,
     'if (span.isCall) name += "()";', 'name += "()";',
     "a text without a call is its own name"),
    ("last-blank", "common/function_name.h",
     "pretty.substr(0, paren).rfind(' ')", "pretty.substr(0, paren).find(' ')",
     "a function's name begins after the last blank before its arguments", PROXY),
]
