// Symbol visibility for the Quillon32 shared library.
//
// The library is built with hidden visibility by default; only what is marked
// QUILLON32_API (the exported functions and the PKI classes that cross them)
// is visible to applications.
#pragma once

#if defined(_WIN32)
#  if defined(QUILLON32_BUILDING)
#    define QUILLON32_API __declspec(dllexport)
#  else
#    define QUILLON32_API __declspec(dllimport)
#  endif
#else
#  define QUILLON32_API __attribute__((visibility("default")))
#endif
