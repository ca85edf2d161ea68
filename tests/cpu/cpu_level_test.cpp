// The processor level: names, the environment variable and scoped levels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "cpu/cpu_level.h"

namespace imagery::cpu {
namespace {

// Names parse back and nothing else parses; the environment lowers the level the process starts with;
// scoped levels, nested too, never raise above the detected one and restore the level before them.
TEST(CpuLevel, NamesParseAndScopedLevelsNeverRaiseAboveTheDetectedOneAndRestore) {
  EXPECT_STREQ(Name(Level::SSE2), "sse2");
  for (const char* name : {"", "SSE2", "avx", "scalar ", "avx5120", "plain"})
    EXPECT_FALSE(Parse(name).has_value()) << name;
  const auto parsed = Parse(std::getenv("IMAGERY_CPU") != nullptr ? std::getenv("IMAGERY_CPU") : "");
  const Level start = Active();
  EXPECT_EQ(start, parsed ? std::min(*parsed, Detected()) : Detected());
  for (const Level outer : {Level::Scalar, Level::SSE2, Level::AVX2, Level::AVX512}) {
    EXPECT_EQ(Parse(Name(outer)), outer);
    {
      const ScopedLevel scoped(outer);
      for (const Level inner : {Level::Scalar, Level::AVX512}) {
        const ScopedLevel nested(inner);
        EXPECT_EQ(Active(), std::min(inner, Detected()));
      }
      EXPECT_EQ(Active(), std::min(outer, Detected())) << Name(outer);
    }
    EXPECT_EQ(Active(), start);
  }
}

}  // namespace
}  // namespace imagery::cpu
