// Helpers shared by the tests of the exported functions: running a case in a
// child process of its own, and small conversions for the C-style calls.
#ifndef QUILLON_TESTS_SUPPORT_CA_TEST_HELPERS_H_
#define QUILLON_TESTS_SUPPORT_CA_TEST_HELPERS_H_

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/pki_factory.h"

namespace quillon::testing {

// Failed CHECKs in the current child process.
inline int child_failures = 0;

inline char* C(const std::string& s) { return const_cast<char*>(s.c_str()); }

inline std::string ReadText(const std::string& path) {
  const std::vector<uint8_t> bytes = ReadFile(path);
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace quillon::testing

// IN_CHILD runs a lambda in a child process, which starts from the untouched
// process-wide state; there CHECK reports a failed condition on stderr, which
// EXPECT_EXIT shows, and makes the child exit 1.
#define CHECK(c)                                                                         \
  ((c) ? void()                                                                          \
       : (void)(++::quillon::testing::child_failures,                                    \
                std::fprintf(stderr, "line %d: %s\n", __LINE__, #c)))
#define IN_CHILD(...)                                                                \
  EXPECT_EXIT(((__VA_ARGS__)(), std::exit(::quillon::testing::child_failures != 0)), \
              ::testing::ExitedWithCode(0), "")

#endif  // QUILLON_TESTS_SUPPORT_CA_TEST_HELPERS_H_
