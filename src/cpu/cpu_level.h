// The processor level that selects every fast kernel of the library: detected once per process, and
// lowered by the environment variable IMAGERY_CPU (scalar, sse2, avx2 or avx512) or, in tests, by a
// ScopedLevel. Each fast kernel has a plain portable twin, so every level gives the same bytes; a
// level the processor or the build lacks is never taken.
//
// Kernels are chosen when the object that runs them is made (an encoder, a row converter), not per row.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "imagery/export.h"

#if defined(__x86_64__) || defined(_M_X64)
#define IMAGERY_X86_64 1
#endif

// Around AVX-512 kernels: GCC 12 takes the undefined start values inside its AVX-512 intrinsics for
// uninitialised reads.
#if defined(__clang__)
#define IMAGERY_AVX512_KERNELS_BEGIN \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wuninitialized\"")
#define IMAGERY_AVX512_KERNELS_END _Pragma("GCC diagnostic pop")
#elif defined(__GNUC__)
#define IMAGERY_AVX512_KERNELS_BEGIN                                                   \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wuninitialized\"") \
      _Pragma("GCC diagnostic ignored \"-Wmaybe-uninitialized\"")
#define IMAGERY_AVX512_KERNELS_END _Pragma("GCC diagnostic pop")
#else
#define IMAGERY_AVX512_KERNELS_BEGIN
#define IMAGERY_AVX512_KERNELS_END
#endif

namespace imagery::cpu {

enum class Level : std::uint8_t { Scalar = 0, SSE2 = 1, AVX2 = 2, AVX512 = 3 };

// The widest level this processor and this build support (SSE2 is part of every x86-64 processor).
IMAGERY_API Level Detected();
// The level kernels are chosen by: Detected(), lowered by IMAGERY_CPU and by any live ScopedLevel.
IMAGERY_API Level Active();
IMAGERY_API const char* Name(Level level);
// Whether kernels chosen at `level` may use the AVX-512 byte permutes (VBMI): only at the AVX512 level,
// on processors that have them. Without them the AVX512 level takes the kernel below it.
IMAGERY_API bool HasByteShuffles(Level level);
// "scalar", "sse2", "avx2" or "avx512"; nothing for anything else.
IMAGERY_API std::optional<Level> Parse(std::string_view name);

// Sets the active level to `level` (never above Detected()) while it lives, then restores the level
// before it; tests use it to run each kernel and its plain twin. Not for use while kernels are being
// chosen on other threads.
class IMAGERY_API ScopedLevel {
 public:
  explicit ScopedLevel(Level level);
  ~ScopedLevel();
  ScopedLevel(const ScopedLevel&) = delete;
  ScopedLevel& operator=(const ScopedLevel&) = delete;

 private:
  Level previous_;
};

}  // namespace imagery::cpu
