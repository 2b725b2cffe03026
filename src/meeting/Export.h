// Marks the few meeting-layer symbols that hosts and engines reach by name (the log sink and the
// engine event callbacks). Everything else in the meeting layer is hidden.
#ifndef CONVOKE_MEETING_EXPORT_H
#define CONVOKE_MEETING_EXPORT_H

#define CONVOKE_EXPORT __attribute__((visibility("default")))

#endif  // CONVOKE_MEETING_EXPORT_H
