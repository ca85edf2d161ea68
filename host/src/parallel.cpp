// ParallelizedFor on the process-wide scheduler, and the Linux side of thread priorities.
#include "imagery_host/parallel.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <mutex>
#include <vector>

#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "imagery_host/scheduler.h"

namespace {

id_t CurrentThreadId() {
  return static_cast<id_t>(syscall(SYS_gettid));
}

bool HasNiceCapability() {
  static const bool capable = [] {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
      return false;
    }
    return (data[CAP_TO_INDEX(CAP_SYS_NICE)].effective & CAP_TO_MASK(CAP_SYS_NICE)) != 0;
  }();
  return capable;
}

// The most favoured nice value an unprivileged thread may return to.
int LowestReachableNice() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NICE, &limit) != 0) {
    return 20;
  }
  if (limit.rlim_cur == RLIM_INFINITY) {
    return -20;
  }
  return 20 - static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 40));
}

}  // namespace

int ZELGetCurrentThreadPriority() {
  errno = 0;
  const int nice = getpriority(PRIO_PROCESS, CurrentThreadId());
  return errno == 0 ? nice : 0;
}

bool ZELSetCurrentThreadPriority(int priority) {
  return setpriority(PRIO_PROCESS, CurrentThreadId(), priority) == 0;
}

namespace tools {

ThreadStateSetter::ThreadStateSetter(const State& target) : previous_(Current()) {
  if (target.priority != previous_.priority && CanChangeAndRestore(previous_, target)) {
    changed_ = ZELSetCurrentThreadPriority(target.priority);
  }
}

ThreadStateSetter::~ThreadStateSetter() {
  if (changed_) {
    ZELSetCurrentThreadPriority(previous_.priority);
  }
}

ThreadStateSetter::State ThreadStateSetter::Current() {
  State state;
  state.priority = ZELGetCurrentThreadPriority();
  return state;
}

bool ThreadStateSetter::CanChangeAndRestore(const State& current, const State& target) {
  // Becoming more favoured needs a right that, once it succeeded, also covers going back; becoming
  // less favoured always succeeds but coming back needs that right.
  if (target.priority <= current.priority) {
    return true;
  }
  return HasNiceCapability() || current.priority >= LowestReachableNice();
}

void ThreadStateDispatcher::MakeMasterState() {
  master_ = ThreadStateSetter::Current();
}

std::unique_ptr<ThreadStateSetter> ThreadStateDispatcher::DoMakeScopedStateSetter(bool isMaster) const {
  if (isMaster || ThreadStateSetter::Current().priority == master_.priority) {
    return nullptr;
  }
  return std::make_unique<ThreadStateSetter>(master_);
}

namespace multiproc {
namespace {

// Batches small enough that the threads finish close together, large enough that the shared counter
// is touched rarely when bodies are cheap.
constexpr long long kBatchesPerThread = 16;
constexpr long long kMaxBatch = 1024;

// The state the participants of one loop share. It lives in the caller's frame: the caller returns
// only after every helper task has finished or has been claimed by the caller itself.
class LoopState {
 public:
  LoopState(long long begin, long long end, int threadCount, const ZELInterruptor& interruptor,
            KORProgress& progress, const LoopBody& body)
      : begin_(begin),
        count_(end - begin),
        batch_(std::clamp(count_ / (threadCount * kBatchesPerThread), 1LL, kMaxBatch)),
        threadCount_(threadCount),
        interruptor_(interruptor),
        progress_(progress),
        body_(body) {}

  void Work() {
    ParallelContext context;
    context.threadIndex = participants_.fetch_add(1, std::memory_order_relaxed);
    context.threadCount = threadCount_;
    long long done = 0;
    try {
      while (!stopped_.load(std::memory_order_relaxed)) {
        const long long first = next_.fetch_add(batch_, std::memory_order_relaxed);
        if (first >= count_) {
          break;
        }
        const long long last = std::min(count_, first + batch_);
        for (long long offset = first; offset < last; ++offset) {
          if (!interruptor_.ShouldContinue()) {
            stopped_.store(true, std::memory_order_relaxed);
            break;
          }
          body_(begin_ + offset, &context);
          ++done;
        }
        progress_.Step(done);
        done = 0;
      }
    } catch (...) {
      progress_.Step(done);
      std::lock_guard<std::mutex> lock(errorMutex_);
      if (!error_) {
        error_ = std::current_exception();
      }
      stopped_.store(true, std::memory_order_relaxed);
    }
  }

  void RethrowError() {
    std::lock_guard<std::mutex> lock(errorMutex_);
    if (error_) {
      std::rethrow_exception(error_);
    }
  }

 private:
  const long long begin_;
  const long long count_;
  const long long batch_;
  const int threadCount_;
  const ZELInterruptor& interruptor_;
  KORProgress& progress_;
  const LoopBody& body_;
  std::atomic<long long> next_{0};  // offset of the next index to hand out
  std::atomic<int> participants_{0};
  std::atomic<bool> stopped_{false};
  std::mutex errorMutex_;
  std::exception_ptr error_;  // guarded by errorMutex_
};

}  // namespace

int GetOptimizedMaxJobThreadAllowed(int requested, long long count) {
  if (count <= 1) {
    return 1;
  }
  const int machine = GetScheduler<SchedulerType::Default>().GetWorkerCount() + 1;
  const int cap = requested >= 1 ? requested : GetJobThreadLimit();
  const int limit = cap >= 1 ? std::min(cap, machine) : machine;
  return static_cast<int>(std::min<long long>(limit, count));
}

void ParallelizedFor(long long begin, long long end, const ZELInterruptor& interruptor, KORProgress& progress,
                     LoopBody body, ThreadStateDispatcher& dispatcher, const ParallelLoopOptions& options) {
  dispatcher.MakeMasterState();
  const long long count = end - begin;
  progress.Steps((count < 0 ? -count : count) + 1);
  if (count <= 0) {
    return;
  }
  const int threads = GetOptimizedMaxJobThreadAllowed(options.maxThreads, count);
  LoopState loop(begin, end, threads, interruptor, progress, body);

  std::vector<std::shared_ptr<CTask>> helpers;
  helpers.reserve(static_cast<std::size_t>(threads - 1));
  CScheduler& scheduler = GetScheduler<SchedulerType::Default>();
  for (int i = 1; i < threads; ++i) {
    auto helper = std::make_shared<GenericFunctionTask<true>>([&loop, &dispatcher] {
      const std::unique_ptr<ThreadStateSetter> state = dispatcher.DoMakeScopedStateSetter(false);
      loop.Work();
    });
    scheduler.AddTask(helper);
    helpers.push_back(std::move(helper));
  }

  loop.Work();
  // Helpers no worker has reached yet are run here: they find nothing left and return at once, and
  // waiting for a helper that has been taken never blocks on anything but that helper's own batch.
  for (const std::shared_ptr<CTask>& helper : helpers) {
    helper->WaitFinished();
  }
  loop.RethrowError();
}

}  // namespace multiproc
}  // namespace tools
