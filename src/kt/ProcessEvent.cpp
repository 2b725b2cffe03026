#include "kt/ProcessEvent.h"

#include <sys/types.h>
#include <sys/wait.h>

std::map<int, ProcessEvent*> ProcessEvent::instances_;

ProcessEvent::ProcessEvent(int pid) : pid_(pid) { instances_[pid] = this; }

ProcessEvent::~ProcessEvent() { instances_.erase(pid_); }

std::string ProcessEvent::Type() const { return "ProcessEvent"; }

bool ProcessEvent::Poll() const { return waitpid(pid_, nullptr, WNOHANG) != 0; }

unsigned ProcessEvent::MinEventTime() const { return Poll() ? 0 : Infinite; }

unsigned ProcessEvent::MaxEventTime() const { return Poll() ? 0 : Infinite; }

void ProcessEvent::OnSigChld(int) {
  for (const auto& [pid, event] : instances_) {
    if (event->Poll()) event->UpdateEvent();
  }
}
