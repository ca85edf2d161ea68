// The task scheduler: tasks with a claimable status, the process-wide worker pool that runs them, and
// the primitive with which a waiting thread helps instead of idling.
//
// How waiting works. A thread that needs a set of tasks finished submits them with AddTask and then,
// rather than blocking, repeatedly claims a task that no worker has taken yet and runs it itself
// (ProcessOrSleep with that task); when every remaining task is already being run elsewhere it waits
// briefly (ProcessOrSleep with an empty pointer) until some task finishes. Because a waiter never
// blocks on a task that nobody is running, tasks may themselves wait on subtasks this way, on workers
// or not, without deadlock, even with a single worker or none.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace tools {

// A unit of work for the scheduler. Its status moves once from kQueued (0: not taken by any thread)
// through kRunning (1: taken; Process() runs or is about to) to kFinished (3). Exactly one thread wins
// TryTake() and runs the task; everyone else only observes it. Tasks are held through std::shared_ptr:
// the submitter and the scheduler's queue share them, and whoever lets go last frees them.
class CTask {
 public:
  enum Status : int { kQueued = 0, kRunning = 1, kFinished = 3 };

  CTask() = default;
  virtual ~CTask();
  CTask(const CTask&) = delete;
  CTask& operator=(const CTask&) = delete;

  // The work itself. An exception leaving it is kept (GetError) and the task finishes all the same.
  virtual void Process() = 0;
  // Returns once the task has finished; if nobody has taken it yet, runs it on the calling thread.
  virtual void WaitFinished();

  // Sequentially consistent, so that a waiter that registers and then looks cannot miss both the
  // finished status and the wake-up sent after it.
  int GetStatus() const { return status_.load(std::memory_order_seq_cst); }
  bool IsFinished() const { return GetStatus() == kFinished; }
  // Claims the task for the calling thread (kQueued -> kRunning); false when someone else has it.
  bool TryTake();
  // Runs a task claimed with TryTake() on the calling thread, then publishes kFinished and wakes the
  // threads waiting for a task to finish. Afterwards the task may be freed by its other owners.
  void RunTaken();
  // The exception that escaped Process(), if any; meaningful once the task has finished.
  std::exception_ptr GetError() const { return error_; }

 private:
  std::atomic<int> status_{kQueued};
  std::exception_ptr error_;
};

// A task running a function. With ReleaseAfterRun the function, and whatever it captured, is destroyed
// as soon as it has run rather than with the task, which the queue or a waiter may hold for longer.
template <bool ReleaseAfterRun>
class GenericFunctionTask : public CTask {
 public:
  explicit GenericFunctionTask(std::function<void()> function) : function_(std::move(function)) {}

  void Process() override {
    if constexpr (ReleaseAfterRun) {
      std::function<void()> function = std::move(function_);
      function_ = nullptr;
      function();
    } else {
      function_();
    }
  }

 private:
  std::function<void()> function_;
};

enum class SchedulerType : int { Default = 0 };

// A pool of worker threads taking tasks from one first-in, first-out queue. Workers start with the
// scheduler; its destructor stops them once their current task is done and drops the tasks still
// queued (they stay kQueued, so a thread waiting on one runs it itself). All members are thread-safe.
class CScheduler {
 public:
  // A scheduler with `workerCount` threads; 0 is allowed (tasks then run only in helping threads).
  explicit CScheduler(int workerCount);
  ~CScheduler();
  CScheduler(const CScheduler&) = delete;
  CScheduler& operator=(const CScheduler&) = delete;

  // Queues the task; the worker that takes it runs Process() once. Tasks already taken by another
  // thread when a worker reaches them are skipped.
  void AddTask(const std::shared_ptr<CTask>& task);
  int GetWorkerCount() const { return static_cast<int>(workers_.size()); }

  // The size of the process-wide pool: one worker per hardware thread but one, since the thread that
  // waits for its tasks helps run them, and never fewer than one, so that tasks nobody waits for run.
  // The environment variable IMAGERY_WORKER_THREADS (1 to 256) overrides it, so that a machine can be
  // given more or fewer workers than its processors suggest.
  static int DefaultWorkerCount();

 private:
  void WorkerLoop();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<CTask>> queue_;  // guarded by mutex_
  bool stopping_ = false;                     // guarded by mutex_
  std::vector<std::thread> workers_;
};

// The process-wide scheduler, created with DefaultWorkerCount() workers on first use and joined when
// the process exits.
template <SchedulerType Type>
CScheduler& GetScheduler();
template <>
CScheduler& GetScheduler<SchedulerType::Default>();

// A process-wide cap on the threads working on one job (a parallel loop that leaves the choice to the
// library, or a list of tasks waited for), for hosts that share the machine with other work and for
// runs compared across thread counts. 0, the default, means no cap; negative values count as 0.
void SetJobThreadLimit(int limit);
int GetJobThreadLimit();

// Sets the job thread limit for the lifetime of the object and restores the previous one afterwards.
// The limit is one process-wide value: scopes on different threads do not nest.
class ScopedJobThreadLimit {
 public:
  explicit ScopedJobThreadLimit(int limit) : previous_(GetJobThreadLimit()) { SetJobThreadLimit(limit); }
  ~ScopedJobThreadLimit() { SetJobThreadLimit(previous_); }
  ScopedJobThreadLimit(const ScopedJobThreadLimit&) = delete;
  ScopedJobThreadLimit& operator=(const ScopedJobThreadLimit&) = delete;

 private:
  int previous_;
};

// With a task: claims it and runs it on the calling thread, unless another thread has taken it already
// (then returns at once). With an empty pointer: waits until some task finishes, at most a couple of
// milliseconds; with `mayBlock` false it only yields the processor instead.
void ProcessOrSleep(const std::shared_ptr<CTask>& task, bool mayBlock);

}  // namespace tools

namespace tools {

// Takes a task of `pending` that no thread has taken yet, walking from the back (so the last submitted
// runs first on the waiting thread, while workers start from the front), and drops finished tasks from
// the list on the way. An empty pointer when every remaining task is being run elsewhere.
template <class TaskPointer>
std::shared_ptr<CTask> GetTaskToDo(std::vector<TaskPointer>& pending) {
  for (std::size_t i = pending.size(); i-- > 0;) {
    const TaskPointer& task = pending[i];
    if (!task)
      continue;
    const int status = task->GetStatus();
    if (status == CTask::kFinished) {
      pending.erase(pending.begin() + static_cast<std::ptrdiff_t>(i));
      continue;
    }
    if (status == CTask::kQueued)
      return task;
  }
  return nullptr;
}

// Submits every task and returns once all are finished; the calling thread runs the tasks that no
// worker has taken yet, so a wait never idles while work is queued. Under a job thread limit of 1 the
// calling thread runs them all itself, in the same order.
template <class TaskPointer>
void ProcessAndWaitTasks(const std::vector<TaskPointer>& tasks, bool mayBlock) {
  if (tasks.empty())
    return;
  std::vector<TaskPointer> pending;
  pending.reserve(tasks.size());
  for (const TaskPointer& task : tasks) {
    if (task)
      pending.push_back(task);
  }
  if (GetJobThreadLimit() != 1) {
    CScheduler& scheduler = GetScheduler<SchedulerType::Default>();
    for (const TaskPointer& task : pending)
      scheduler.AddTask(task);
  }
  while (!pending.empty()) {
    const std::shared_ptr<CTask> task = GetTaskToDo(pending);
    // The last task may have finished since the loop's test: then there is nothing left to wait for.
    if (!task && pending.empty())
      return;
    ProcessOrSleep(task, mayBlock);
  }
}

}  // namespace tools
