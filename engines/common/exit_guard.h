// The exit guard: ends an engine family's threads before the process's other static objects are
// destroyed. Each family names what to stop (SetExitAction) when it is loaded; its event queues arm
// the guard after their first delivery.
#ifndef KTENGINE_EXIT_GUARD_H
#define KTENGINE_EXIT_GUARD_H

namespace ktengine {

// What the guard runs at exit: stopping the family's meeting and event threads. Set once, before
// the first event is queued (a static initialiser of the family's library does it); any thread.
void SetExitAction(void (*action)());

// Registers, once per process, an exit handler that runs the action. Called after an event
// callback has returned for the first time: by then the product has created the objects its
// callbacks use, so the handler runs before their destructors do. Any thread.
void ArmExitGuard();

}  // namespace ktengine

#endif  // KTENGINE_EXIT_GUARD_H
