#pragma once

// The public headers that need C++20 include this one before any of it. A
// host built as C++17 (g++ 12's default; pkg-config cannot pass a standard)
// gets this line first instead of a page of errors about defaulted
// comparisons and <=>.
#if __cplusplus < 202002L
#error "ZavoCamera's headers need C++20: compile with -std=c++20 (find_package(ZavoCamera) sets it)"
#endif

// The libraries are built with hidden visibility: only what is marked here is
// seen from outside the library that defines it. Classes with virtual
// functions that other libraries (or the suites) derive from, cast to or
// catch need it too, so that their type information is one and the same
// everywhere.
#define ZAVO_EXPORT __attribute__((visibility("default")))
