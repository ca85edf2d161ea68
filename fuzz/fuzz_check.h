// What the fuzz targets share: a broken promise ends the run where libFuzzer records the input.
#pragma once

#include <cstdlib>

inline void Require(bool condition) {
  if (!condition)
    std::abort();
}
