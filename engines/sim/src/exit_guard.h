// Ends the simulation's threads before the process's other static objects are destroyed.
#ifndef KTSIM_EXIT_GUARD_H
#define KTSIM_EXIT_GUARD_H

namespace ktsim {

// Registers, once per process, an exit handler that stops the scripted meeting and the event
// threads. Called after an event callback has returned for the first time: by then the product has
// created the objects its callbacks use, so the handler runs before their destructors do.
void ArmExitGuard();

}  // namespace ktsim

#endif  // KTSIM_EXIT_GUARD_H
