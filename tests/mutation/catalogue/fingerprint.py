# SPDX-License-Identifier: Apache-2.0
"""Mutations of the fingerprint requester."""

REQUESTER = "fingerprint/fingerprint_requester.cpp"

MUTATIONS = [
    ("inclusive-bound", REQUESTER,
     "if (idx > m_maxNumBlocks) {", "if (idx >= m_maxNumBlocks) {",
     "one fingerprint more than there are blocks is stored"),
    ("slots", REQUESTER,
     "m_fingerprints.resize(m_maxNumBlocks + 1);", "m_fingerprints.resize(m_maxNumBlocks);",
     "the store has a slot for the inclusive bound"),
    ("batch-key", REQUESTER,
     "(m_dsNum << 16U) + start", "(m_dsNum << 16U) + count",
     "the key names the batch's first fingerprint"),
    ("key-overflow", REQUESTER,
     "(m_dsNum << 16U) + start", "(m_dsNum << 16U) | start",
     "a large index runs into the number's bits by addition"),
    ("sent-after", REQUESTER,
     "  m_sendFn(std::move(batch), (m_dsNum << 16U) + start);\n"
     "  m_lastFpIdxSent.store(start + count);",
     "  m_lastFpIdxSent.store(start + count);\n"
     "  m_sendFn(std::move(batch), (m_dsNum << 16U) + start);",
     "a batch counts as sent only after the send function has returned"),
    ("last-only", REQUESTER,
     "!(isComplete && fpIdx == m_totalFPs.load() - 1)", "!isComplete",
     "a short batch leaves only with the last fingerprint"),
    ("complete-only", REQUESTER,
     "!(isComplete && fpIdx == m_totalFPs.load() - 1)", "!(fpIdx == m_totalFPs.load() - 1)",
     "a short batch leaves only from a complete dataset"),
    ("nothing-new", REQUESTER,
     "if (m_nextFingerprint.load() == m_lastFpIdxSent.load()) return;", "",
     "nothing is sent when nothing has arrived since"),
    ("short-batch-repeats", REQUESTER,
     "static_cast<std::uint32_t>(fpIdx / m_batchSize) * static_cast<std::uint32_t>(m_batchSize);",
     "static_cast<std::uint32_t>(m_lastFpIdxSent.load());",
     "a batch begins at a multiple of its size"),
    ("refused-counted", REQUESTER,
     "    return;\n  }\n  // Another thread",
     "    m_nextFingerprint.fetch_sub(1);\n    return;\n  }\n  // Another thread",
     "a refused fingerprint stays counted"),
    ("hex-digits", "common/log.h",
     "0123456789abcdef", "0123456789ABCDEF",
     "a fingerprint is logged in lower case", REQUESTER),
]
