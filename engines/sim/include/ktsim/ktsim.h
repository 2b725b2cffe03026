/*
 * ktsim.h - control API of the simulated media engines.
 *
 * libktaudio-mac and libktvideo-mac, as built from engines/sim, implement the media engines' C ABI
 * over one shared simulation (libktsim). This header is how tests, the demo and host developers
 * steer that simulation: run a scripted meeting, deliver event documents by hand, choose what the
 * engines answer, and read back every call the product made.
 *
 * Two ways to drive it
 *  - Scripted (the state at load): a successful VideoConnect starts a simulated meeting with
 *    participants that talk, share video, arrive and leave; the engines understand the product's
 *    command documents, refuse those they do not understand, describe simulated devices in their
 *    state documents and fill real frame buffers. AudioDisconnect or VideoDisconnect ends it.
 *    See "The scripted meeting" below and engines/sim/README.md.
 *  - Manual (after ktsim_reset): nothing happens by itself; the engines accept what the settings
 *    say, and a test delivers each event with ktsim_deliver. ktsim_meeting_enable(true) switches
 *    back to scripted.
 *  ktsim_deliver and the settings work in both: an explicit setting (a refusal, a state document,
 *  a frame answer) wins over the scripted behaviour.
 *
 * Conventions
 *  1. Every function may be called from any thread. Texts are NUL-terminated UTF-8 and are copied
 *     before the call returns; NULL is accepted wherever a text is and means the empty text.
 *  2. Each engine delivers its events on its own thread, one at a time, in the order they were
 *     queued, through the callback registered at the moment of delivery. The thread starts with
 *     the first delivery and ends at ktsim_shutdown(), at process exit, or once idle after a
 *     Disconnect. No lock of the simulation is held while a callback runs: a callback may call any
 *     engine or control function.
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

#include "ktengine/frame.h"

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

/* Back to manual control: ends a running scripted meeting (without events), turns the scripted
 * meeting off and forgets its options, empties both event queues (waiting until no callback runs,
 * unless called from one), clears the call log and the frame counters, and restores every setting
 * to its default (Connect and SetRoot succeed, no error text, empty state documents, no frames
 * ready). The registered event and trace callbacks are kept. */
KTSIM_API void ktsim_reset(void);

/* Stops both event threads after they have delivered what is queued, and waits for them to end.
 * A later delivery starts them again. Call it at the end of a test to leave nothing running.
 * Called from inside an event callback, that engine's thread ends once the callback returns. */
KTSIM_API void ktsim_shutdown(void);

/* How many threads of the simulation are running: the two event threads and the scripted
 * meeting's clock (which runs during a meeting and while a sound plays). */
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
 * callback pointers as "set" or "null", sound data pointers as their address in decimal. Examples:
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

/* ---- The scripted meeting -------------------------------------------------------------------
 *
 * Options are texts of key=value pairs joined by '&', the syntax of a URL query. They come from
 * ktsim_meeting_configure and from the query part of the meeting identifier in the connect URL
 * ("rtsp://<server>:46000/kt.sdp/6/standup?participants=6&seed=7"); a key in the URL wins.
 * Unknown keys and unreadable values are ignored.
 *   participants=N  remote participants at the start, 0 to 1000 (default 4)
 *   seed=N          random seed (default: derived from the meeting identifier, so one identifier
 *                   always gives the same participants)
 *   churn=S         mean seconds between an arrival or a departure; 0 for none (default 45)
 *   screen=0|1      whether one participant shares a screen (default 1)
 *   fps=N           camera frame rate of the remote participants, 1 to 60 (default 30); shared
 *                   screens run at a third of it, at most 10
 *   muted=N         participants muted at the start (default a third of them)
 *   phone=N         participants without video, dialled in by phone (default 1 from 4 up)
 *   tick=MS         period of amplitude and meter events, 20 to 1000 (default 100)
 *   conditions=MS   period of the link condition events, 100 to 10000 (default 1000)
 *   start=MS        delay from VideoConnect to the first announcement, 0 to 5000 (default 150)
 *
 * What it sends: audio_site_changed and video_site_changed for every participant (e-mail
 * addresses as identities), amplitude (mostly one speaker at a time), input_meter and
 * output_meter while the local microphone and speakers are enabled, audio_update_conditions and
 * video_update_conditions, remote_layout_changed and video_stream_size_changed now and then,
 * video_stream_removed and audio_stream_removed when a participant leaves, binary_playback_ended
 * when a sound ends (its data is the sound's address in decimal), and video_stream_buffer_ready
 * when the product enables the rendering of a stream; the stream's pixel_buffer is then the
 * address of a ktsim_frame (below) and VideoFrameReady reports each new frame at the stream's
 * frame rate. Enabling the camera, a screen or a network source announces a local stream
 * (local "true"); disabling it removes the stream. Refused commands leave their reason for
 * GetLastError. */

/* Scripted meeting on or off (on at load, off after ktsim_reset). Turning it off ends a running
 * meeting. */
KTSIM_API void ktsim_meeting_enable(bool on);
KTSIM_API bool ktsim_meeting_enabled(void);
/* Default options for the meetings started from now on (NULL or "": the built-in defaults). */
KTSIM_API void ktsim_meeting_configure(const char* options);
/* Whether a scripted meeting is running (between a successful VideoConnect and a Disconnect). */
KTSIM_API bool ktsim_meeting_running(void);
/* Remote participants present in the running meeting (0 when none runs). */
KTSIM_API int ktsim_meeting_participants(void);
/* A participant joins now, or the most recently joined one leaves now. False when no meeting
 * runs (or nobody is left to leave). */
KTSIM_API bool ktsim_meeting_arrive(void);
KTSIM_API bool ktsim_meeting_depart(void);
/* The volume last set by a command for an audio device or stream id, or -1 when none was. */
KTSIM_API int ktsim_meeting_volume(const char* id);

/* ---- Frames --------------------------------------------------------------------------------
 *
 * In a scripted meeting, the pixel_buffer of video_stream_buffer_ready is the address of a frame
 * descriptor, the ktengine_frame of ktengine/frame.h that every engine of this project uses (its
 * rules for readers are there). The names below are the simulation's own names for it. */

#define KTSIM_FRAME_MAGIC KTENGINE_FRAME_MAGIC
#define KTSIM_RGB888 KTENGINE_RGB888
#define KTSIM_BGRA8888 KTENGINE_BGRA8888
#define KTSIM_RGBA8888 KTENGINE_RGBA8888
typedef ktengine_pixel_format ktsim_pixel_format;
typedef ktengine_frame ktsim_frame;

/* Copies the frame's pixels (height rows of width * bytes_per_pixel bytes, rows packed) into
 * `pixels` and its description into `info` (either may be NULL), consistently: no frame is
 * written meanwhile. Returns the number of pixel bytes, or 0 (nothing copied) when `frame` is
 * not a descriptor of the simulation or `size` is too small. */
KTSIM_API size_t ktsim_frame_copy(const ktsim_frame* frame, void* pixels, size_t size,
                                  ktsim_frame* info);

#ifdef __cplusplus
}
#endif

#endif /* KTSIM_KTSIM_H */
