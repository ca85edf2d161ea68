#include "cpu/cpu_level.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

#include "imagery_host/logger.h"

namespace imagery::cpu {
namespace {

Level DetectOnce() {
#if defined(IMAGERY_X86_64) && defined(__GNUC__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f"))
    return Level::AVX512;
  if (__builtin_cpu_supports("avx2"))
    return Level::AVX2;
  return Level::SSE2;
#elif defined(IMAGERY_X86_64)
  return Level::SSE2;
#else
  return Level::Scalar;
#endif
}

// Detected() lowered by the environment.
Level StartLevel() {
  const Level detected = Detected();
  const char* asked = std::getenv("IMAGERY_CPU");
  if (asked == nullptr || *asked == '\0')
    return detected;
  const std::optional<Level> parsed = Parse(asked);
  if (!parsed) {
    ZEL_LOG(
        L"image", L"WARN", "Imagery/Cpu",
        L"IMAGERY_CPU=" << asked << L" is not one of scalar, sse2, avx2, avx512; using " << Name(detected));
    return detected;
  }
  return std::min(*parsed, detected);
}

std::atomic<Level>& ActiveLevel() {
  static std::atomic<Level> level{StartLevel()};
  return level;
}

}  // namespace

Level Detected() {
  static const Level detected = DetectOnce();
  return detected;
}

Level Active() {
  return ActiveLevel().load(std::memory_order_relaxed);
}

bool HasByteShuffles(Level level) {
#if defined(IMAGERY_X86_64) && defined(__GNUC__)
  static const bool supported = __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vbmi");
  return level >= Level::AVX512 && Detected() >= Level::AVX512 && supported;
#else
  static_cast<void>(level);
  return false;
#endif
}

const char* Name(Level level) {
  switch (level) {
    case Level::Scalar:
      return "scalar";
    case Level::SSE2:
      return "sse2";
    case Level::AVX2:
      return "avx2";
    case Level::AVX512:
      return "avx512";
  }
  return "scalar";
}

std::optional<Level> Parse(std::string_view name) {
  for (Level level : {Level::Scalar, Level::SSE2, Level::AVX2, Level::AVX512}) {
    if (name == Name(level))
      return level;
  }
  return std::nullopt;
}

ScopedLevel::ScopedLevel(Level level) : previous_(Active()) {
  ActiveLevel().store(std::min(level, Detected()), std::memory_order_relaxed);
}

ScopedLevel::~ScopedLevel() {
  ActiveLevel().store(previous_, std::memory_order_relaxed);
}

}  // namespace imagery::cpu
