// ProcessEvent: an event signalled once a child process has ended and been reaped.
//
// Thread safety: none. The registry of instances is a process-wide map without a lock; create,
// destroy and poll process events on one thread, and call OnSigChld from that thread (for example
// after a SIGCHLD handler has set a flag) rather than from the handler itself.
#ifndef KT_PROCESSEVENT_H
#define KT_PROCESSEVENT_H

#include <map>
#include <string>

#include "kt/Event.h"
#include "convoke/export.h"

// Signalled once the child pid has ended and been reaped. Thread safety: none (see above); the
// registry of instances is shared by the whole process without a lock.
class CONVOKE_API ProcessEvent : public Event {
 public:
  // Watches the child pid and makes instances_[pid] point to this event (replacing an earlier
  // entry for the same pid).
  explicit ProcessEvent(int pid);
  // Erases the registry entry for the pid, whichever event it points to.
  ~ProcessEvent() override;

  std::string Type() const override;  // "ProcessEvent"
  // Tries to reap the child (waitpid with WNOHANG): true once it has been reaped, and from then on,
  // since every later waitpid on the pid fails. Polling may therefore reap the child.
  bool Poll() const override;
  // Both 0 when Poll() is true, else Infinite (so both may reap the child).
  unsigned MinEventTime() const override;
  unsigned MaxEventTime() const override;

  int GetPid() const { return pid_; }

  // Announces every registered instance whose child has ended (Poll() true) to its dispatcher, in
  // ascending pid order. Meant for SIGCHLD; nothing in the library installs it.
  static void OnSigChld(int signal);

  // Every live ProcessEvent by pid.
  static std::map<int, ProcessEvent*> instances_;

 private:
  int pid_;
};

#endif  // KT_PROCESSEVENT_H
