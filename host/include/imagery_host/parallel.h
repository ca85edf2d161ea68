// Parallel loops over an index range on the process-wide worker pool, and the thread state (priority)
// that workers borrow from the thread that started the loop.
#pragma once

#include <memory>

#include <boost/function.hpp>

#include "imagery_host/progress.h"

// Thread priorities are nice values of the calling thread: -20 (most favoured) to 19 (least).
int ZELGetCurrentThreadPriority();
// Answers false, leaving the priority as it was, when the system refuses the change.
bool ZELSetCurrentThreadPriority(int priority);

namespace tools {

// Gives the calling thread another state for the lifetime of the object; the destructor restores the
// previous one. A change the thread could not undo later (lowering its priority without the right to
// raise it back) is not made, and a change the system refuses is ignored: the work then simply runs
// at the thread's own priority.
class ThreadStateSetter {
 public:
  struct State {
    int priority = 0;
  };

  explicit ThreadStateSetter(const State& target);
  ~ThreadStateSetter();
  ThreadStateSetter(const ThreadStateSetter&) = delete;
  ThreadStateSetter& operator=(const ThreadStateSetter&) = delete;

  static State Current();
  // Whether a thread at `current` may move to `target` and later back again.
  static bool CanChangeAndRestore(const State& current, const State& target);

 private:
  State previous_;
  bool changed_ = false;
};

// Carries the state of the thread that starts a parallel loop (the master) to the threads that help.
class ThreadStateDispatcher {
 public:
  virtual ~ThreadStateDispatcher() = default;

  // Records the calling thread's state as the master state.
  void MakeMasterState();
  const ThreadStateSetter::State& GetMasterState() const { return master_; }
  // A setter giving a helping thread the master state for as long as it works on the loop; null for
  // the master itself and for threads already in that state.
  virtual std::unique_ptr<ThreadStateSetter> DoMakeScopedStateSetter(bool isMaster) const;

 private:
  ThreadStateSetter::State master_;
};

namespace multiproc {

struct ParallelLoopOptions {
  // At most this many threads, the caller included. Any value below 1 (conventionally -2) leaves the
  // choice to GetOptimizedMaxJobThreadAllowed.
  int maxThreads = -2;
};

// Passed to every call of a loop body. threadIndex is unique among the threads taking part in one
// loop and lies in [0, threadCount), so bodies may index per-thread scratch space with it.
struct ParallelContext {
  int threadIndex = 0;
  int threadCount = 1;
};

using LoopBody = boost::function<void(long long, const ParallelContext*)>;

// Number of threads for a loop of `count` iterations: the pool's workers plus the caller, no more than
// `requested` when that is 1 or more, otherwise no more than tools::GetJobThreadLimit() when one is set,
// never more than `count`, and at least 1.
int GetOptimizedMaxJobThreadAllowed(int requested, long long count);

// Calls body(i, context) exactly once for every i in [begin, end) and returns when all calls are over.
// The calling thread takes part; the other participants are tasks on the process-wide scheduler, which
// take indices in small contiguous batches. Before each index the interruptor is asked whether to go
// on; once it says no, no further index starts anywhere (indices already running finish) and the
// function returns when they have.
//
// Progress: `progress` is first divided into |end - begin| + 1 steps, and each index done completes
// one. The dispatcher records the calling thread's state, which helping threads take on while they
// work on the loop.
//
// The first exception thrown by a body stops the loop like an interruption and is rethrown on the
// calling thread once every participant has stopped; later ones are dropped.
//
// Bodies run concurrently: whatever they share must be read-only or synchronised. A body may itself
// run parallel loops or wait for scheduler tasks.
void ParallelizedFor(long long begin, long long end, const ZELInterruptor& interruptor, KORProgress& progress,
                     LoopBody body, ThreadStateDispatcher& dispatcher, const ParallelLoopOptions& options);

}  // namespace multiproc
}  // namespace tools
