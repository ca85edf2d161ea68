// zel::CriticalSection: the recursive lock that the host may attach to shared objects.
#pragma once

#include <mutex>

namespace zel {

// A recursive mutex with the standard lock interface, so that std::lock_guard, std::unique_lock and
// std::scoped_lock work with it. The thread that holds it may lock it again and must unlock it as many
// times. Copying an object that owns a CriticalSection gives the copy a fresh, unlocked lock: a lock
// guards one object, it is not part of its value.
class CriticalSection {
 public:
  CriticalSection() = default;
  CriticalSection(const CriticalSection&) {}
  CriticalSection& operator=(const CriticalSection&) { return *this; }

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }
  bool try_lock() { return mutex_.try_lock(); }

 private:
  std::recursive_mutex mutex_;
};

}  // namespace zel
