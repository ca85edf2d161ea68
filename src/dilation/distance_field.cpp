// The chamfer distance field: its two-pass construction, the descent towards the nearest defined pixel
// and the picture of the distances.
#include "imagery/distance_field.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "cpu/cpu_level.h"
#include "imagery/image.h"
#include "imagery/pixel_access.h"
#include "imagery/plane_memory.h"
#include "imagery_host/scheduler.h"

#if defined(IMAGERY_X86_64)
#include <immintrin.h>
#endif

namespace imagery {

namespace {

// Fields smaller than this are built on the calling thread alone: handing rows between threads would
// cost more than it saves.
constexpr std::int64_t kParallelFrom = 4096;
// The bytes of mask rows that the predicate may run ahead of the forward pass: enough to ride out the
// worker's page faults on fresh memory or a stall of either thread, few enough to stay in the cache.
constexpr std::size_t kRingBytes = std::size_t(1) << 20;
// Narrower rows are not split between threads.
constexpr int kSplitFrom = 16;

// a + k saturating at kUnreachedDistance, without a branch so that whole rows vectorise.
template <std::uint32_t K>
inline std::uint32_t Plus(std::uint32_t a) {
  return std::min(a, kUnreachedDistance - K) + K;
}

// The row kernels of both passes, chosen once per field by the processor level. Each AVX2 kernel gives
// the same values as its plain twin: everything is unsigned integer minima and saturating sums.
struct RowKernels {
  // candidates[x] for x in [x0, x1): the least of own[x] and the three candidates from the neighbouring
  // row (above in the forward pass, below in the backward one). Arrays are indexed by column; own may
  // be candidates.
  void (*candidates)(const std::uint32_t* own, const std::uint32_t* neighbourRow, int width, int x0, int x1,
                     std::uint32_t* candidates);
  // The chain along a row: row[x] = min(c[x], row[x - 1] + 3) for x = 0 .. width - 1 (forward), and
  // row[x] = min(c[x], row[x + 1] + 3) for x = x1 - 1 down to x0, starting from row[x1] when x1 < width
  // (backward).
  void (*scanRight)(const std::uint32_t* c, int width, std::uint32_t* row);
  void (*scanLeft)(const std::uint32_t* c, int width, int x0, int x1, std::uint32_t* row);
};

void PlainCandidates(const std::uint32_t* own, const std::uint32_t* neighbourRow, int width, int x0, int x1,
                     std::uint32_t* candidates) {
  for (int x = x0; x < x1; ++x)
    candidates[x] = std::min(own[x], Plus<3>(neighbourRow[x]));
  for (int x = std::max(x0, 1); x < x1; ++x)
    candidates[x] = std::min(candidates[x], Plus<4>(neighbourRow[x - 1]));
  const int last = std::min(x1, width - 1);
  for (int x = x0; x < last; ++x)
    candidates[x] = std::min(candidates[x], Plus<4>(neighbourRow[x + 1]));
}

// Written as g[x] = d[x] - 3x, the chain is a running minimum, g[x] = min(c[x] - 3x, g[x - 1]): one
// dependent operation per pixel instead of an add, a saturation and a minimum. In 64 bits nothing
// overflows, and d[x] <= c[x] keeps every result at or below kUnreachedDistance, so the saturating sums
// of the pixel-by-pixel definition give the same values.
void PlainScanRight(const std::uint32_t* c, int width, std::uint32_t* row) {
  std::int64_t running = INT64_MAX;
  for (int x = 0; x < width; ++x) {
    const std::int64_t offset = 3 * static_cast<std::int64_t>(x);
    running = std::min(running, c[x] - offset);
    row[x] = static_cast<std::uint32_t>(running + offset);
  }
}

void PlainScanLeft(const std::uint32_t* c, int width, int x0, int x1, std::uint32_t* row) {
  std::int64_t running = x1 < width ? row[x1] + 3 * static_cast<std::int64_t>(x1) : INT64_MAX;
  for (int x = x1 - 1; x >= x0; --x) {
    const std::int64_t offset = 3 * static_cast<std::int64_t>(x);
    running = std::min(running, c[x] + offset);
    row[x] = static_cast<std::uint32_t>(running - offset);
  }
}

#if defined(IMAGERY_X86_64) && defined(__GNUC__)

// min(a, MAX - k) + k lane by lane: the saturating sum.
__attribute__((target("avx2"))) inline __m256i PlusAVX2(__m256i a, __m256i k) {
  return _mm256_add_epi32(_mm256_min_epu32(a, _mm256_sub_epi32(_mm256_set1_epi32(-1), k)), k);
}

__attribute__((target("avx2"))) void CandidatesAVX2(const std::uint32_t* own,
                                                    const std::uint32_t* neighbourRow, int width, int x0,
                                                    int x1, std::uint32_t* candidates) {
  // Columns with both diagonal neighbours, eight at a time; the rest as the plain kernel does them.
  const int from = std::max(x0, 1), to = std::min(x1, width - 1);
  int x = from;
  if (to - from >= 8) {
    const __m256i three = _mm256_set1_epi32(3), four = _mm256_set1_epi32(4);
    for (; x + 8 <= to; x += 8) {
      __m256i best = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(own + x));
      best = _mm256_min_epu32(
          best, PlusAVX2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(neighbourRow + x)), three));
      best = _mm256_min_epu32(
          best, PlusAVX2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(neighbourRow + x - 1)), four));
      best = _mm256_min_epu32(
          best, PlusAVX2(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(neighbourRow + x + 1)), four));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(candidates + x), best);
    }
  }
  PlainCandidates(own, neighbourRow, width, x0, std::min(from, x1), candidates);
  PlainCandidates(own, neighbourRow, width, std::max(x, x0), x1, candidates);
}

// Eight links of the chain at once, in three doubling steps: each lane takes the lane 1, 2, then 4
// before it (in the direction of the chain; the step vectors pick it, the blend masks mark the lanes
// that have none), plus 3, 6, 12. The order of saturating minima does not matter: every route gives
// min(c[j] + 3 |x - j|, kUnreachedDistance).
template <int Mask1, int Mask2, int Mask4>
__attribute__((target("avx2"))) inline __m256i ChainOfEight(__m256i v, __m256i step1, __m256i step2,
                                                            __m256i step4) {
  const __m256i none = _mm256_set1_epi32(-1);
  v = _mm256_min_epu32(v, PlusAVX2(_mm256_blend_epi32(_mm256_permutevar8x32_epi32(v, step1), none, Mask1),
                                   _mm256_set1_epi32(3)));
  v = _mm256_min_epu32(v, PlusAVX2(_mm256_blend_epi32(_mm256_permutevar8x32_epi32(v, step2), none, Mask2),
                                   _mm256_set1_epi32(6)));
  return _mm256_min_epu32(v, PlusAVX2(_mm256_blend_epi32(_mm256_permutevar8x32_epi32(v, step4), none, Mask4),
                                      _mm256_set1_epi32(12)));
}

// Each block of eight, then the carry from the block before it.
__attribute__((target("avx2"))) void ScanRightAVX2(const std::uint32_t* c, int width, std::uint32_t* row) {
  const __m256i none = _mm256_set1_epi32(-1);
  const __m256i step1 = _mm256_setr_epi32(0, 0, 1, 2, 3, 4, 5, 6);
  const __m256i step2 = _mm256_setr_epi32(0, 0, 0, 1, 2, 3, 4, 5);
  const __m256i step4 = _mm256_setr_epi32(0, 0, 0, 0, 0, 1, 2, 3);
  const __m256i ramp = _mm256_setr_epi32(3, 6, 9, 12, 15, 18, 21, 24);
  const __m256i lastLane = _mm256_set1_epi32(7);
  __m256i carry = none;
  int x = 0;
  for (; x + 8 <= width; x += 8) {
    __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c + x));
    v = ChainOfEight<0x01, 0x03, 0x0F>(v, step1, step2, step4);
    v = _mm256_min_epu32(v, PlusAVX2(carry, ramp));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(row + x), v);
    carry = _mm256_permutevar8x32_epi32(v, lastLane);
  }
  std::uint32_t last = x > 0 ? row[x - 1] : kUnreachedDistance;
  for (; x < width; ++x) {
    last = std::min(c[x], Plus<3>(last));
    row[x] = last;
  }
}

__attribute__((target("avx2"))) void ScanLeftAVX2(const std::uint32_t* c, int width, int x0, int x1,
                                                  std::uint32_t* row) {
  const __m256i step1 = _mm256_setr_epi32(1, 2, 3, 4, 5, 6, 7, 7);
  const __m256i step2 = _mm256_setr_epi32(2, 3, 4, 5, 6, 7, 7, 7);
  const __m256i step4 = _mm256_setr_epi32(4, 5, 6, 7, 7, 7, 7, 7);
  const __m256i ramp = _mm256_setr_epi32(24, 21, 18, 15, 12, 9, 6, 3);
  const __m256i firstLane = _mm256_setzero_si256();
  std::uint32_t last = x1 < width ? row[x1] : kUnreachedDistance;
  __m256i carry = _mm256_set1_epi32(static_cast<int>(last));
  int x = x1;
  for (; x - 8 >= x0; x -= 8) {
    __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c + x - 8));
    v = ChainOfEight<0x80, 0xC0, 0xF0>(v, step1, step2, step4);
    v = _mm256_min_epu32(v, PlusAVX2(carry, ramp));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(row + x - 8), v);
    carry = _mm256_permutevar8x32_epi32(v, firstLane);
  }
  if (x < x1)
    last = row[x];
  for (--x; x >= x0; --x) {
    last = std::min(c[x], Plus<3>(last));
    row[x] = last;
  }
}

#endif

RowKernels ChooseRowKernels() {
#if defined(IMAGERY_X86_64) && defined(__GNUC__)
  if (cpu::Active() >= cpu::Level::AVX2)
    return {&CandidatesAVX2, &ScanRightAVX2, &ScanLeftAVX2};
#endif
  return {&PlainCandidates, &PlainScanRight, &PlainScanLeft};
}

// Both passes run a row at a time: the candidates from the finished neighbouring row are independent
// of each other, and what is left is the chain along the row. A row can be finished in pieces, each
// starting from the result of the piece to its right.
void ForwardRow(const RowKernels& kernels, const std::uint32_t* above, const unsigned char* defined,
                int width, std::uint32_t* candidates, std::uint32_t* row) {
  // A defined pixel's own 0, everything else unreached (defined holds 0 or 1).
  for (int x = 0; x < width; ++x)
    candidates[x] = static_cast<std::uint32_t>(defined[x]) - 1u;
  if (above != nullptr)
    kernels.candidates(candidates, above, width, 0, width, candidates);
  kernels.scanRight(candidates, width, row);
}

// The backward pass over columns [x0, x1) of a row whose columns from x1 on are final, as are columns
// x0 - 1 to x1 of the row below (null for the last row). Defined pixels need no test: their 0 is the
// smallest candidate there is.
void BackwardPiece(const RowKernels& kernels, std::uint32_t* row, const std::uint32_t* below, int width,
                   int x0, int x1, std::uint32_t* candidates) {
  if (below == nullptr)
    std::copy(row + x0, row + x1, candidates + x0);
  else
    kernels.candidates(row, below, width, x0, x1, candidates);
  kernels.scanLeft(candidates, width, x0, x1, row);
}

// One job that a worker of the host's pool may do beside the calling thread. Whoever claims it first
// does it: the worker when its task starts, or the caller when it would otherwise wait for a job nobody
// runs (no free worker, a job thread limit of 1). The job refers to the caller's frame, so the caller
// leaves only once the task has finished; leaving early (an exception) tells a running job to stop
// waiting. The job itself must not throw: the caller could not learn of it.
class Companion {
 public:
  explicit Companion(bool wanted) : wanted_(wanted && tools::GetJobThreadLimit() != 1) {}
  Companion(const Companion&) = delete;
  Companion& operator=(const Companion&) = delete;
  ~Companion() {
    stop_.store(true, std::memory_order_relaxed);
    Finish();
  }

  bool Wanted() const { return wanted_; }
  bool Started() const { return task_ != nullptr; }

  template <class Job>
  void Start(Job job) {
    if (!wanted_)
      return;
    task_ = std::make_shared<tools::GenericFunctionTask<true>>([this, job]() mutable {
      if (Claim(kWorker))
        job();
    });
    tools::GetScheduler<tools::SchedulerType::Default>().AddTask(task_);
  }

  // True when the caller now owns the job (no worker had begun it): it must do the work itself.
  bool ClaimForCaller() { return Started() && Claim(kCaller); }

  // Returns once ready() holds, or false at once when the caller has left.
  template <class Ready>
  bool WaitUntil(Ready ready) const {
    for (int spins = 0; !ready(); ++spins) {
      if (stop_.load(std::memory_order_relaxed))
        return false;
      if (spins >= 64)
        std::this_thread::yield();
    }
    return true;
  }

  // Returns once the task has finished; if no worker took it, runs it here (the job then runs on this
  // thread unless the caller claimed it).
  void Finish() {
    if (!task_)
      return;
    tools::ProcessOrSleep(task_, true);
    while (!task_->IsFinished())
      std::this_thread::yield();
    task_.reset();
  }

 private:
  static constexpr int kNobody = 0, kWorker = 1, kCaller = 2;

  bool Claim(int who) {
    int expected = kNobody;
    return owner_.compare_exchange_strong(expected, who, std::memory_order_acq_rel);
  }

  bool wanted_;
  std::atomic<int> owner_{kNobody};
  std::atomic<bool> stop_{false};
  std::shared_ptr<tools::GenericFunctionTask<true>> task_;
};

// Calls the predicate for every row on this thread while a worker runs the forward pass a row or more
// behind, the rows' answers handed over through a ring of mask rows. Returns whether any pixel is
// defined.
bool ForwardPass(const RowKernels& kernels, const std::function<bool(int, int)>& isDefined,
                 std::uint32_t* distances, int width, int height) {
  const auto rowOf = [distances, width](int y) { return distances + static_cast<std::int64_t>(y) * width; };
  const bool parallel = height > 1 && static_cast<std::int64_t>(width) * height >= kParallelFrom &&
                        tools::GetJobThreadLimit() != 1;
  const int ringRows =
      parallel ? static_cast<int>(std::clamp<std::size_t>(kRingBytes / static_cast<std::size_t>(width), 2,
                                                          static_cast<std::size_t>(height)))
               : 1;
  std::vector<unsigned char> ring(static_cast<std::size_t>(ringRows) * static_cast<std::size_t>(width));
  std::vector<std::uint32_t> candidates(static_cast<std::size_t>(width));
  std::vector<std::uint32_t> workerCandidates(parallel ? static_cast<std::size_t>(width) : 0);
  const auto forwardRow = [&](int y, std::uint32_t* scratch) {
    const unsigned char* defined = ring.data() + static_cast<std::size_t>(y % ringRows) * width;
    ForwardRow(kernels, y > 0 ? rowOf(y - 1) : nullptr, defined, width, scratch, rowOf(y));
  };
  std::atomic<int> produced{0}, consumed{0};

  Companion companion(parallel);
  companion.Start([&] {
    for (int y = 0; y < height; ++y) {
      if (!companion.WaitUntil([&] { return produced.load(std::memory_order_acquire) > y; }))
        return;
      forwardRow(y, workerCandidates.data());
      consumed.store(y + 1, std::memory_order_release);
    }
  });

  bool here = !companion.Started();
  unsigned char anyDefined = 0;
  for (int y = 0; y < height; ++y) {
    if (!here && y - consumed.load(std::memory_order_acquire) >= ringRows) {
      if (companion.ClaimForCaller()) {
        // No worker came: the rows in the ring are this thread's to finish, and so is everything after.
        here = true;
        for (int done = consumed.load(std::memory_order_relaxed); done < y; ++done)
          forwardRow(done, candidates.data());
      } else {
        companion.WaitUntil([&] { return y - consumed.load(std::memory_order_acquire) < ringRows; });
      }
    }
    unsigned char* defined = ring.data() + static_cast<std::size_t>(y % ringRows) * width;
    for (int x = 0; x < width; ++x)
      defined[x] = isDefined(x, y) ? 1 : 0;
    for (int x = 0; x < width; ++x)
      anyDefined |= defined[x];
    produced.store(y + 1, std::memory_order_release);
    if (here)
      forwardRow(y, candidates.data());
  }
  companion.Finish();
  return anyDefined != 0;
}

// The backward pass, shared between this thread and a worker without a hand-over per row. A pixel
// needs the row below from one column to its left onwards, so the part of each row right of a boundary
// that moves one column right per row (upwards) depends on nothing left of it: this thread does those
// parts, never waiting, and the worker follows a row or more behind with the left parts. The boundary
// runs from a quarter of the width to three quarters, which balances the two, then starts again; only
// there does this thread wait, once, for the worker to finish the row below.
void BackwardPass(const RowKernels& kernels, std::uint32_t* distances, int width, int height) {
  const auto rowOf = [distances, width](int y) { return distances + static_cast<std::int64_t>(y) * width; };
  const auto belowOf = [&](int y) { return y + 1 < height ? rowOf(y + 1) : nullptr; };
  std::vector<std::uint32_t> candidates(static_cast<std::size_t>(width));
  const int band = width / 2;
  const auto boundary = [&](int y) { return width / 4 + (height - 1 - y) % band; };
  std::vector<std::uint32_t> workerCandidates;
  // The lowest row whose right part is final, and the lowest that is final whole.
  std::atomic<int> rightDone{height}, leftDone{height};
  Companion companion(width >= kSplitFrom && static_cast<std::int64_t>(width) * height >= kParallelFrom);
  if (companion.Wanted())
    workerCandidates.resize(static_cast<std::size_t>(width));
  companion.Start([&] {
    for (int y = height - 1; y >= 0; --y) {
      if (!companion.WaitUntil([&] { return rightDone.load(std::memory_order_acquire) <= y; }))
        return;
      BackwardPiece(kernels, rowOf(y), belowOf(y), width, 0, boundary(y), workerCandidates.data());
      leftDone.store(y, std::memory_order_release);
    }
  });

  const auto wholeRows = [&](int from) {
    for (int y = from; y >= 0; --y)
      BackwardPiece(kernels, rowOf(y), belowOf(y), width, 0, width, candidates.data());
  };
  if (!companion.Started()) {
    wholeRows(height - 1);
    return;
  }
  for (int y = height - 1; y >= 0; --y) {
    const bool restart = y + 1 < height && (height - 1 - y) % band == 0;
    if (restart && leftDone.load(std::memory_order_acquire) > y + 1) {
      if (companion.ClaimForCaller()) {
        // No worker came: the left parts below are still to do, then whole rows.
        for (int below = height - 1; below > y; --below)
          BackwardPiece(kernels, rowOf(below), belowOf(below), width, 0, boundary(below), candidates.data());
        wholeRows(y);
        break;
      }
      companion.WaitUntil([&] { return leftDone.load(std::memory_order_acquire) <= y + 1; });
    }
    BackwardPiece(kernels, rowOf(y), belowOf(y), width, boundary(y), width, candidates.data());
    rightDone.store(y, std::memory_order_release);
  }
  companion.Finish();
}

}  // namespace

void DistanceField::PlaneDeleter::operator()(std::uint32_t* p) const {
  PlaneMemoryPolicy::Free(reinterpret_cast<unsigned char*>(p), bytes);
}

// The predicate's calls are a serial floor that the passes cannot go below, so the forward pass runs
// beside them, and the backward pass, which must wait for the whole forward one, is shared out.
DistanceField::DistanceField(const Image& image, std::function<bool(int, int)> isDefined)
    : width_(std::max(image.Width(), 0)), height_(std::max(image.Height(), 0)) {
  const std::size_t count = static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_);
  const std::size_t bytes = std::max<std::size_t>(count, 1) * sizeof(std::uint32_t);
  distances_ = std::unique_ptr<std::uint32_t[], PlaneDeleter>(
      reinterpret_cast<std::uint32_t*>(PlaneMemoryPolicy::Allocate(bytes, false)), PlaneDeleter{bytes});
  if (!distances_)
    throw std::bad_alloc();
  picks_.reset(static_cast<std::uint64_t*>(std::calloc(count > 0 ? count : 1, sizeof(std::uint64_t))));
  if (!picks_)
    throw std::bad_alloc();
  if (count == 0)
    return;
  const RowKernels kernels = ChooseRowKernels();
  anyDefined_ = ForwardPass(kernels, isDefined, distances_.get(), width_, height_);
  BackwardPass(kernels, distances_.get(), width_, height_);
}

DistanceField::~DistanceField() = default;

std::uint32_t DistanceField::GetDistance(int x, int y) const {
  if (x < 0 || y < 0 || x >= width_ || y >= height_)
    return kUnreachedDistance;
  return distances_[static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) +
                    static_cast<std::size_t>(x)];
}

std::uint32_t DistanceField::GetNextDistance(int& x, int& y) const {
  static constexpr int kSteps[8][2] = {{-1, 0}, {1, 0}, {0, 1}, {0, -1}, {-1, 1}, {1, 1}, {1, -1}, {-1, -1}};
  int best = 0;
  std::uint32_t bestDistance = GetDistance(x + kSteps[0][0], y + kSteps[0][1]);
  for (int i = 1; i < 8; ++i) {
    const std::uint32_t distance = GetDistance(x + kSteps[i][0], y + kSteps[i][1]);
    if (distance < bestDistance) {
      bestDistance = distance;
      best = i;
    }
  }
  x += kSteps[best][0];
  y += kSteps[best][1];
  return bestDistance;
}

// The descent is walked twice rather than recursively, so that its length never matters: once to find
// where it ends (a defined pixel, or a pixel whose answer is already known), then again to remember that
// answer for every pixel it passed.
void DistanceField::GetColorToPickCoordinates(int& x, int& y) const {
  if (!anyDefined_)
    return;
  const auto index = [this](int px, int py) {
    return static_cast<std::uint64_t>(py) * static_cast<std::uint64_t>(width_) +
           static_cast<std::uint64_t>(px);
  };
  const std::uint64_t start = index(x, y);
  if (distances_[start] == 0)
    return;
  std::uint64_t target = picks_[start];
  if (target == 0) {
    int px = x, py = y;
    std::uint32_t distance = distances_[start];
    std::uint64_t steps = 0;
    for (;;) {
      const std::uint32_t next = GetNextDistance(px, py);
      ++steps;
      const std::uint64_t at = index(px, py);
      if (next == 0) {
        target = at + 1;
        break;
      }
      if (picks_[at] != 0) {
        target = picks_[at];
        break;
      }
      // A complete field always has a strictly nearer neighbour; stopping here only keeps a damaged one
      // from looping.
      if (next >= distance) {
        target = at + 1;
        break;
      }
      distance = next;
    }
    px = x;
    py = y;
    for (std::uint64_t i = 0; i < steps; ++i) {
      picks_[index(px, py)] = target;
      GetNextDistance(px, py);
    }
  }
  x = static_cast<int>((target - 1) % static_cast<std::uint64_t>(width_));
  y = static_cast<int>((target - 1) / static_cast<std::uint64_t>(width_));
}

void DistanceField::FillImageWithDistance(Image& image) const {
  image.MakeUniqueIfFactoryDefault();
  ImageImpl& impl = image.GetImplRef();
  PixelPlane& plane = impl.Plane();
  const int width = std::min(width_, plane.Width());
  const int height = std::min(height_, plane.Height());
  if (width < 1 || height < 1 || plane.Data() == nullptr)
    return;
  impl.InvalidateMipMaps(true, true);
  DispatchImageType(plane.Type(), [&](auto t) {
    TypedPixelAccess<decltype(t)::value> cursor(plane, 0, 0);
    for (int y = 0; y < height; ++y) {
      const std::uint32_t* distances = DistanceRow(y);
      cursor.MoveTo(0, y);
      for (int x = 0; x < width; ++x, cursor.Next())
        cursor.SetPixelGrayscale(static_cast<float>(distances[x]) / 384.0f);
    }
  });
}

}  // namespace imagery
