// The task scheduler: task claiming, the submit-and-help waiting pattern (with any number of workers,
// nested, from many threads), exceptions, and shutdown.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "imagery_host/scheduler.h"

namespace {

using Task = tools::GenericFunctionTask<false>;
using TaskList = std::vector<std::shared_ptr<Task>>;
using Visits = std::vector<std::atomic<int>>;

tools::CScheduler& Global() {
  return tools::GetScheduler<(tools::SchedulerType)0>();
}

// The waiting pattern that row-band helpers are built on: the caller submits its tasks, then runs the
// last one nobody has taken, dropping finished ones, and sleeps briefly while all are being run.
std::shared_ptr<tools::CTask> TakeUntakenFromBack(TaskList& pending) {
  for (std::size_t i = pending.size(); i-- > 0;) {
    if (pending[i]->GetStatus() == tools::CTask::kFinished) {
      pending.erase(pending.begin() + static_cast<std::ptrdiff_t>(i));
    } else if (pending[i]->GetStatus() == tools::CTask::kQueued) {
      return pending[i];
    }
  }
  return nullptr;
}

void SubmitAndHelp(tools::CScheduler& scheduler, const TaskList& tasks) {
  TaskList pending = tasks;
  for (const std::shared_ptr<Task>& task : tasks) {
    scheduler.AddTask(task);
  }
  while (!pending.empty()) {
    tools::ProcessOrSleep(TakeUntakenFromBack(pending), true);
  }
}

// One task per band of `rows` rows, each counting the visits of its rows.
TaskList MakeBands(int height, int rows, Visits& visits) {
  TaskList tasks;
  for (int first = 0; first < height; first += rows) {
    tasks.push_back(std::make_shared<Task>([first, end = std::min(first + rows, height), &visits] {
      for (int y = first; y < end; ++y) {
        ++visits[static_cast<std::size_t>(y)];
      }
    }));
  }
  return tasks;
}

void ExpectEachVisitedOnce(const Visits& visits) {
  for (std::size_t y = 0; y < visits.size(); ++y) {
    ASSERT_EQ(visits[y].load(), 1) << "row " << y;
  }
}

TEST(CTask, ExactlyOneOfManyRacingThreadsClaimsAndRunsEachTask) {
  constexpr int kTasks = 300;
  Visits runs(kTasks);
  TaskList tasks;
  for (std::size_t i = 0; i < kTasks; ++i) {
    tasks.push_back(std::make_shared<Task>([&runs, i] { ++runs[i]; }));
  }
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      while (!go.load()) {
        std::this_thread::yield();
      }
      for (const std::shared_ptr<Task>& task : tasks) {
        tools::ProcessOrSleep(task, true);
        task->WaitFinished();
        EXPECT_TRUE(task->IsFinished());
      }
    });
  }
  go = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  ExpectEachVisitedOnce(runs);
  EXPECT_FALSE(tasks[0]->TryTake());
}

TEST(CScheduler, EveryBandRunsOnceWithAnyNumberOfWorkers) {
  for (int workers : {0, 1, 3}) {
    tools::CScheduler scheduler(workers);
    Visits visits(1001);
    SubmitAndHelp(scheduler, MakeBands(1001, 7, visits));
    ExpectEachVisitedOnce(visits);
  }
}

TEST(CScheduler, TasksWaitingOnTheirOwnSubtasksDoNotDeadlock) {
  constexpr int kOuter = 12;
  constexpr std::size_t kRows = 100;
  tools::CScheduler single(1);
  for (tools::CScheduler* scheduler : {&Global(), &single}) {
    Visits visits(kOuter * kRows);
    TaskList outer;
    for (std::size_t o = 0; o < kOuter; ++o) {
      outer.push_back(std::make_shared<Task>([scheduler, &visits, o] {
        Visits part(kRows);
        SubmitAndHelp(*scheduler, MakeBands(kRows, 3, part));
        for (std::size_t y = 0; y < kRows; ++y) {
          visits[o * kRows + y] += part[y].load();
        }
      }));
    }
    SubmitAndHelp(*scheduler, outer);
    ExpectEachVisitedOnce(visits);
  }
}

TEST(CScheduler, ExceptionIsKeptInTheTaskAndTheWorkerCarriesOn) {
  tools::CScheduler scheduler(1);
  auto failing = std::make_shared<Task>([] { throw std::runtime_error("band failed"); });
  std::atomic<int> laterRuns{0};
  auto later = std::make_shared<Task>([&laterRuns] { ++laterRuns; });
  scheduler.AddTask(failing);
  scheduler.AddTask(later);
  // Never claim here: only the worker can finish these.
  while (!failing->IsFinished() || !later->IsFinished()) {
    tools::ProcessOrSleep(nullptr, true);
  }
  EXPECT_THROW(std::rethrow_exception(failing->GetError()), std::runtime_error);
  EXPECT_FALSE(later->GetError());
  EXPECT_EQ(laterRuns.load(), 1);
}

TEST(CScheduler, QueuedTasksOfAStoppedSchedulerAreLeftToTheirWaiters) {
  std::thread::id ranOn;
  auto task = std::make_shared<Task>([&ranOn] { ranOn = std::this_thread::get_id(); });
  { tools::CScheduler(0).AddTask(task); }
  EXPECT_EQ(task->GetStatus(), tools::CTask::kQueued);
  task->WaitFinished();
  EXPECT_EQ(ranOn, std::this_thread::get_id());

  EXPECT_EQ(Global().GetWorkerCount(), tools::CScheduler::DefaultWorkerCount());
  EXPECT_GE(Global().GetWorkerCount(), 1);
}

}  // namespace
