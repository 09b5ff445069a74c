#pragma once

// The libraries are built with hidden visibility: only what is marked here is
// seen from outside the library that defines it. Classes with virtual
// functions that other libraries (or the suites) derive from, cast to or
// catch need it too, so that their type information is one and the same
// everywhere.
#define ZAVO_EXPORT __attribute__((visibility("default")))
