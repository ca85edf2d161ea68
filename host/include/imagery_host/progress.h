// Cancellation and progress reporting for long operations: ZELInterruptor and its two stock kinds,
// KORProgress with its nested sub-steps, and the pair that loops carry around.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

// Asked by long operations whether they should go on. Implementations must be safe to query from
// several threads at once, since parallel loops ask from every worker.
class ZELInterruptor {
 public:
  virtual ~ZELInterruptor() = default;

  bool ShouldContinue() const { return DoShouldContinue(); }
  virtual bool DoShouldContinue() const = 0;
};

// Never interrupts.
class ZELNullInterruptor final : public ZELInterruptor {
 public:
  bool DoShouldContinue() const override { return true; }
};

// Interrupts once Cancel() has been called, from any thread. The flag stays set until Reset().
class ZELFlagInterruptor : public ZELInterruptor {
 public:
  void Cancel() { cancelled_.store(true, std::memory_order_release); }
  void Reset() { cancelled_.store(false, std::memory_order_release); }
  bool IsCancelled() const { return cancelled_.load(std::memory_order_acquire); }
  bool DoShouldContinue() const override { return !IsCancelled(); }

 private:
  std::atomic<bool> cancelled_{false};
};

// Progress of an operation as a fraction from 0 to 1.
//
// A progress object is a level: Steps(n) splits what remains of the level into n equal steps and
// Step() completes one of them. A sub-task that should count for one step of its caller reports into a
// KORProgress::SubProgressStep built on the caller's progress; the sub-step has levels of its own and,
// when it ends, the parent's step is complete whatever the sub-task reported.
//
// Overall progress only grows and never passes 1: steps beyond the number announced are ignored. The
// callback, if any, receives the overall value of the whole tree (not of one level); it is called from
// whichever thread advanced the progress, never from two threads at once, with non-decreasing values,
// and only when the value moved by at least a thousandth or reached 1.
//
// Thread safety: Step(), GetValue() and the creation of sub-steps may happen on any number of threads
// at once (sub-steps begun together take distinct steps of their parent). Steps() is meant for the
// thread that owns the level, while no other thread advances it. A sub-step must not outlive its parent.
class KORProgress {
 public:
  using Callback = std::function<void(float)>;
  class SubProgressStep;

  // Reports nowhere; the value is still tracked.
  KORProgress();
  explicit KORProgress(Callback callback);
  virtual ~KORProgress();
  KORProgress(const KORProgress&) = delete;
  KORProgress& operator=(const KORProgress&) = delete;

  // Divides what this level has not yet reported into `count` steps; a count below 1 counts as 1.
  void Steps(long long count);
  // Completes `count` steps of this level.
  void Step(long long count = 1);
  // Fraction of this level that is done, from 0 to 1.
  float GetValue() const;

 private:
  struct Notifier;
  KORProgress(KORProgress* parent, double span);
  // Claims up to `amount` of this level's unclaimed share and reports what was claimed.
  void Claim(double amount);
  // Adds `amount` to what this level and all its ancestors have done, then tells the callback.
  void AddDone(double amount);

  KORProgress* parent_;
  std::unique_ptr<Notifier> notifier_;  // only on the top level
  double span_;                         // this level's share of the whole tree
  std::atomic<double> claimed_{0.0};    // share handed out: own steps and sub-steps begun
  std::atomic<double> done_{0.0};       // share actually done, sub-steps included
  std::atomic<double> stepSize_{0.0};   // share of the tree per step
};

// A child progress covering the next step of `parent`. Its destructor completes that step of the
// parent (adding whatever the child has not reported), so an early return still advances the parent by
// exactly one step.
class KORProgress::SubProgressStep : public KORProgress {
 public:
  explicit SubProgressStep(KORProgress& parent);
  // A sub-step of a sub-step (sub-steps are never copied).
  explicit SubProgressStep(SubProgressStep& parent) : SubProgressStep(static_cast<KORProgress&>(parent)) {}
  ~SubProgressStep() override;
};

namespace tools {

// The interruptor and progress that an interruptible loop consults together.
struct InterruptorAndProgress {
  const ZELInterruptor& interruptor;
  KORProgress& progress;

  bool ShouldContinue() const { return interruptor.ShouldContinue(); }
};

}  // namespace tools
