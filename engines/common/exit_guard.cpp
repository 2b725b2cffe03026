// The exit guard (exit_guard.h). The action is read at exit, on the thread that calls exit().
#include "exit_guard.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

namespace ktengine {

namespace {

std::atomic<void (*)()> exit_action{nullptr};

void RunExitAction() {
  if (void (*action)() = exit_action.load()) action();
}

}  // namespace

void SetExitAction(void (*action)()) { exit_action.store(action); }

void ArmExitGuard() {
  static std::once_flag once;
  std::call_once(once, [] { std::atexit(RunExitAction); });
}

}  // namespace ktengine
