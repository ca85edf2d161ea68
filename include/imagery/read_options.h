// Options handed through to the host's picture reader; their meaning is the reader's.
#pragma once

#include "imagery/export.h"

#include <set>

namespace imagery {

struct IMAGERY_API ReadOptions {
  bool quiet = false;
  // The library sets these two when it reloads or replaces a file that is already in use.
  bool isReload = false;
  bool bypassReaderCache = false;
  std::set<int> frames{-1};
};

}  // namespace imagery
