/*
 * ktsim.h - control API of the simulated media engines.
 *
 * libktaudio-mac and libktvideo-mac, as built from engines/sim, implement the media engines' C ABI
 * over one shared simulation (libktsim). This header is how tests, the demo and host developers
 * steer that simulation: deliver event documents, choose what the engines answer, and read back
 * every call the product made.
 *
 * Conventions
 *  1. Every function may be called from any thread. Texts are NUL-terminated UTF-8 and are copied
 *     before the call returns; NULL is accepted wherever a text is and means the empty text.
 *  2. Each engine delivers its events on its own thread, one at a time, in the order they were
 *     queued, through the callback registered at the moment of delivery. The thread starts with
 *     the first delivery and ends at ktsim_shutdown() or process exit. No lock of the simulation is
 *     held while a callback runs: a callback may call any engine or control function.
 *  3. Settings (connect results, SetRoot results, error texts, state documents) stay in force until
 *     changed or until ktsim_reset().
 *  4. The call log records every engine ABI call with its arguments, across both engines, in the
 *     order the calls were made, except VideoFrameReady (polled every 33 ms per stream), which is
 *     only counted.
 */
#ifndef KTSIM_KTSIM_H
#define KTSIM_KTSIM_H

#include <stdbool.h>
#include <stddef.h>

#if defined(_WIN32)
#define KTSIM_API
#else
#define KTSIM_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Which engine a control call addresses. */
typedef enum ktsim_engine { KTSIM_AUDIO = 0, KTSIM_VIDEO = 1 } ktsim_engine;

/* Back to the state at load: empties both event queues (waiting until the event threads are idle),
 * clears the call log and the frame counters, and restores every setting to its default (Connect
 * and SetRoot succeed, no error text, empty state documents, scripted meeting off, no frames
 * ready). The registered event and trace callbacks are kept. */
KTSIM_API void ktsim_reset(void);

/* Stops both event threads after they have delivered what is queued, and waits for them to end.
 * A later delivery starts them again. Call it at the end of a test to leave nothing running.
 * Called from inside an event callback, that engine's thread ends once the callback returns. */
KTSIM_API void ktsim_shutdown(void);

/* How many threads of the simulation are running (event threads and the scripted meeting's). */
KTSIM_API int ktsim_threads_running(void);

/* Queues an event document for delivery on the engine's thread through the callback the product
 * registered with AudioSetCallback / VideoSetCallback (dropped when none is registered). */
KTSIM_API void ktsim_deliver(ktsim_engine engine, const char* xml);

/* Like ktsim_deliver, then waits until that event's callback has returned. Called from inside that
 * engine's own event callback it cannot wait (the event comes after the running one) and returns
 * once the event is queued. */
KTSIM_API void ktsim_deliver_sync(ktsim_engine engine, const char* xml);

/* Waits until every event queued so far on that engine has been delivered (returns at once when
 * called from inside that engine's own event callback). */
KTSIM_API void ktsim_flush(ktsim_engine engine);

/* Queues a trace line for the trace callback registered with Audio/VideoTraceSetMessageCallback,
 * delivered on the engine's event thread in order with its events (dropped when none is set). */
KTSIM_API void ktsim_emit_trace(ktsim_engine engine, unsigned int level, const char* text);

/* Results and texts the engines answer with. */
KTSIM_API void ktsim_set_connect_result(ktsim_engine engine, bool ok); /* default true */
KTSIM_API void ktsim_set_setroot_result(ktsim_engine engine, bool ok); /* default true */
/* The text GetLastError copies out; NULL or "" makes GetLastError return 0 and write nothing. */
KTSIM_API void ktsim_set_last_error(ktsim_engine engine, const char* text);
/* The document GetState returns (default ""). Every document handed out stays valid until the
 * process ends. */
KTSIM_API void ktsim_set_state(ktsim_engine engine, const char* xml);
/* What AudioPlaySound and AudioStopSound answer for a non-NULL sound (default true; NULL data is
 * always refused). */
KTSIM_API void ktsim_set_sound_result(bool ok);

/* What VideoFrameReady answers for a stream: ready != 0 makes it report a new frame on every poll,
 * 0 makes it report none. Streams never set answer 0. */
KTSIM_API void ktsim_set_frame_ready(const char* stream_id, int ready);
/* How many times VideoFrameReady was called for a stream (NULL: for every stream). */
KTSIM_API unsigned long ktsim_frame_polls(const char* stream_id);

/* The call log. An entry is the function name followed by each argument, separated by tab
 * characters: texts as given (NULL as "(null)"), numbers in decimal, bools as "true"/"false",
 * callback pointers as "set" or "null". Examples:
 *   "AudioConnect\trtsp://s:46000/kt.sdp/4/m\tauto\t\tAnn\tuuid\tkey\tAES256\t0\t1\t0"
 *   "VideoSetRoot\t<video>...</video>"      "AudioGetLastError\t1024"      "VideoDisconnect\t0"
 *   "AudioPlaySound\t140736\t512\t"        "VideoTraceSetMessageCallback\tnull"
 * ktsim_log_entry copies entry `index` (0 = oldest) into buffer (NUL-terminated, cut to fit) and
 * returns the entry's full length, or -1 when there is no such entry. */
KTSIM_API size_t ktsim_log_count(void);
KTSIM_API long ktsim_log_entry(size_t index, char* buffer, size_t size);
KTSIM_API void ktsim_log_clear(void);

/* The last trace level set on an engine (-1 before any). */
KTSIM_API int ktsim_trace_level(ktsim_engine engine);
/* The last text given to Audio/VideoTraceOutputHistory ("" before any), copied like
 * ktsim_log_entry: returns its full length. */
KTSIM_API long ktsim_trace_history(ktsim_engine engine, char* buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* KTSIM_KTSIM_H */
