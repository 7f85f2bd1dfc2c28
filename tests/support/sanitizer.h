// What cannot be tried under a sanitizer.
#ifndef TESTS_SUPPORT_SANITIZER_H_
#define TESTS_SUPPORT_SANITIZER_H_

#include <gtest/gtest.h>

// AddressSanitizer reserves terabytes of addresses and ends the process where no memory is left: a
// limit on either (RLIMIT_AS, a failing malloc) cannot be tried under it. And it looks up the stack
// of a process in /proc.
#ifdef __SANITIZE_ADDRESS__
#define NEEDS_MEMORY_LIMITS() GTEST_SKIP() << "memory limits do not work under AddressSanitizer"
#define WORKS_WITHOUT_PROC() GTEST_SKIP() << "AddressSanitizer needs /proc"
#else
#define NEEDS_MEMORY_LIMITS() static_cast<void>(0)
#define WORKS_WITHOUT_PROC() static_cast<void>(0)
#endif

#endif  // TESTS_SUPPORT_SANITIZER_H_
