// The worker pool and the process-wide signal by which finished tasks wake waiting threads.
#include "imagery_host/scheduler.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>

namespace tools {
namespace {

// Long enough not to spin, short enough that a wake-up lost between a waiter's last look at its tasks
// and its sleep costs nothing noticeable.
constexpr std::chrono::milliseconds kIdleWait{2};

constexpr long kMaxConfiguredWorkers = 256;

std::atomic<int> jobThreadLimit{0};

// Wakes threads waiting for tasks to finish. Deliberately never destroyed: workers of any scheduler,
// including one being torn down at exit, may still finish tasks.
class FinishSignal {
 public:
  static FinishSignal& Get() {
    static FinishSignal* signal = new FinishSignal;
    return *signal;
  }

  // Called after a task's status became kFinished.
  void Notify() {
    // Pairs with the increment in the waits: either the waiter sees the new status or we see it waiting.
    if (waiters_.load(std::memory_order_seq_cst) == 0) {
      return;
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++generation_;
    }
    finished_.notify_all();
  }

  void WaitForAnyFinish() {
    std::unique_lock<std::mutex> lock(mutex_);
    waiters_.fetch_add(1, std::memory_order_seq_cst);
    const std::uint64_t seen = generation_;
    finished_.wait_for(lock, kIdleWait, [&] { return generation_ != seen; });
    waiters_.fetch_sub(1, std::memory_order_relaxed);
  }

  void WaitForFinish(const CTask& task) {
    std::unique_lock<std::mutex> lock(mutex_);
    waiters_.fetch_add(1, std::memory_order_seq_cst);
    // The timeout only matters if a notification slips between the status store and our registration.
    while (!task.IsFinished()) {
      finished_.wait_for(lock, kIdleWait);
    }
    waiters_.fetch_sub(1, std::memory_order_relaxed);
  }

 private:
  std::mutex mutex_;
  std::condition_variable finished_;
  std::atomic<int> waiters_{0};
  std::uint64_t generation_ = 0;  // guarded by mutex_
};

}  // namespace

CTask::~CTask() = default;

bool CTask::TryTake() {
  int expected = kQueued;
  return status_.compare_exchange_strong(expected, kRunning, std::memory_order_acq_rel);
}

void CTask::RunTaken() {
  try {
    Process();
  } catch (...) {
    error_ = std::current_exception();
  }
  status_.store(kFinished, std::memory_order_seq_cst);
  FinishSignal::Get().Notify();
}

void CTask::WaitFinished() {
  if (TryTake()) {
    RunTaken();
    return;
  }
  FinishSignal::Get().WaitForFinish(*this);
}

CScheduler::CScheduler(int workerCount) {
  workers_.reserve(static_cast<std::size_t>(std::max(workerCount, 0)));
  for (int i = 0; i < workerCount; ++i) {
    workers_.emplace_back([this] { WorkerLoop(); });
  }
}

CScheduler::~CScheduler() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    queue_.clear();
  }
  wake_.notify_all();
  for (std::thread& worker : workers_) {
    worker.join();
  }
}

void CScheduler::AddTask(const std::shared_ptr<CTask>& task) {
  if (!task) {
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
      return;
    }
    queue_.push_back(task);
  }
  wake_.notify_one();
}

void SetJobThreadLimit(int limit) {
  jobThreadLimit.store(std::max(limit, 0), std::memory_order_relaxed);
}

int GetJobThreadLimit() {
  return jobThreadLimit.load(std::memory_order_relaxed);
}

int CScheduler::DefaultWorkerCount() {
  if (const char* configured = std::getenv("IMAGERY_WORKER_THREADS")) {
    char* end = nullptr;
    const long count = std::strtol(configured, &end, 10);
    if (end != configured && *end == '\0' && count >= 1 && count <= kMaxConfiguredWorkers)
      return static_cast<int>(count);
  }
  const int hardware = static_cast<int>(std::thread::hardware_concurrency());
  return std::max(1, hardware - 1);
}

void CScheduler::WorkerLoop() {
  for (;;) {
    std::shared_ptr<CTask> task;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (stopping_) {
        return;
      }
      task = std::move(queue_.front());
      queue_.pop_front();
    }
    if (task->TryTake()) {
      task->RunTaken();
    }
  }
}

template <>
CScheduler& GetScheduler<SchedulerType::Default>() {
  FinishSignal::Get();
  static CScheduler scheduler(CScheduler::DefaultWorkerCount());
  return scheduler;
}

void ProcessOrSleep(const std::shared_ptr<CTask>& task, bool mayBlock) {
  if (task) {
    if (task->TryTake()) {
      task->RunTaken();
    }
    return;
  }
  if (mayBlock) {
    FinishSignal::Get().WaitForAnyFinish();
  } else {
    std::this_thread::yield();
  }
}

}  // namespace tools
