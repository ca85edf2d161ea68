// The processor level: names, the environment variable and scoped levels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "cpu/cpu_level.h"

namespace imagery::cpu {
namespace {

TEST(CpuLevel, NamesParseAndScopedLevelsNeverRaiseAboveTheDetectedOneAndRestore) {
  const Level kLevels[] = {Level::Scalar, Level::SSE2, Level::AVX2, Level::AVX512};
  EXPECT_STREQ(Name(Level::SSE2), "sse2");
  for (const char* name : {"", "SSE2", "avx", "scalar ", "avx5120", "plain"})
    EXPECT_FALSE(Parse(name).has_value()) << name;
  // The environment lowers the level the process starts with.
  const char* asked = std::getenv("IMAGERY_CPU");
  const auto parsed = Parse(asked != nullptr ? asked : "");
  const Level start = Active();
  EXPECT_EQ(start, parsed ? std::min(*parsed, Detected()) : Detected());
  for (const Level outer : kLevels) {
    EXPECT_EQ(Parse(Name(outer)), outer);
    {
      const ScopedLevel scoped(outer);
      EXPECT_EQ(Active(), std::min(outer, Detected())) << Name(outer);
      for (const Level inner : kLevels) {
        {
          const ScopedLevel nested(inner);
          EXPECT_EQ(Active(), std::min(inner, Detected()));
        }
        EXPECT_EQ(Active(), std::min(outer, Detected()));
      }
    }
    EXPECT_EQ(Active(), start);
  }
}

}  // namespace
}  // namespace imagery::cpu
