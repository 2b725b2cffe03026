/*
 * convoke.h - the host C API of libConvoke, the core library of a desktop video-meeting client.
 *
 * A host application joins a meeting, switches its microphone, speakers, camera, network video and
 * remote video streams on and off, sets volumes, plays short sounds, lists devices and asks about
 * participants and their streams with the functions below. The library reports every change of the
 * meeting through C callbacks that the host registers with SetDelegateCallback.
 *
 * Conventions
 *
 *  1. Texts are NUL-terminated 8-bit strings (UTF-8 in practice). A text argument is read once and
 *     copied during the call; the library keeps no pointer to host memory. Text arguments must not
 *     be NULL unless a function says otherwise.
 *  2. Memory returned to the host belongs to the library and the host never frees it. The one
 *     exception is the preferred-device text of getAudioInputDevices and getAudioOutputDevices,
 *     which the host owns and releases with free().
 *     - Query texts (getParticipantString, getVideoInfoString, getParticipantVideoInfoAt, the
 *       audio-info queries) and the getLastError text belong to the calling thread: each thread
 *       has its own buffers, like errno. A text stays valid until the next call on the SAME thread
 *       that fills the same buffer (see the query section); calls on other threads, callbacks
 *       running on other threads included, never change it.
 *     - List arrays (the device and resolution lists) are shared by all threads: an array stays
 *       valid until the next call of the same function from any thread, or ConvokeDeallocate.
 *  3. Errors: the command functions return non-zero when the engine accepted the command and 0 when
 *     validation or the engine refused it. getLastError() then tells why ("Success", a validation
 *     message such as "Invalid device name", the engine's own text, or "Unknown error"), for the
 *     latest validated command OF THE CALLING THREAD: a command on another thread (including the
 *     commands the library sends by itself on an engine thread) does not change it. Lookups report
 *     a miss by NULL, false or 0. No function raises a C++ exception into the host.
 *  4. Threads: every function may be called from any thread, including from inside a callback. The
 *     library takes no lock of its own while it calls the host. Callbacks run synchronously on the
 *     thread that raised them:
 *     - the audio engine's thread: participants' audio, meters, amplitude, conditions, sound
 *       playback;
 *     - the video engine's thread: participants' video and slot 8 (videoStreamBufferReady);
 *     - one frame timer thread per rendered video stream: slot 9 (videoFrameReady). A stream
 *       has at most one polling timer thread, whatever the number of buffer announcements,
 *       pause/resume pairs or enable/disable cycles: resuming a stream whose thread still polls
 *       or still waits out its stop re-arms that thread, and a frame is reported at most once per
 *       poll. A stopped timer thread polls no more and ends about 2 seconds after its stop;
 *     - the host's own thread: the local participant added by joinMeeting.
 *     Texts passed to callbacks are valid only during the call.
 *     Frame barrier: when exitMeeting, disableVideoStream or pauseVideoFrameProcessing returns, no
 *     frame callback (slot 9) of the streams it stopped is running or will begin: these functions
 *     wait for a frame callback in progress on another thread. Called from inside a frame callback
 *     they do not wait for that callback itself. The one way to deadlock: a frame callback that
 *     waits (on a lock, a join, a condition) for a thread that is inside one of these three calls,
 *     including a frame callback of another stream that pauses or disables this stream.
 *  5. Output pointers: every pointer a function writes through may be NULL; nothing is written
 *     there then (lists are still refreshed, lookups still run). Each function below says so.
 *  6. Lifecycle: ConvokeInitialize once, then SetDelegateCallback for each callback, joinMeeting,
 *     commands and queries, exitMeeting, and ConvokeDeallocate when the lists are no longer needed.
 *     The meeting session itself lives until the process ends.
 *  7. Four entry points are exported with C++ linkage (their parameter types are part of the
 *     symbol): freeStringArray, enableInlineAudioVideoLogging, findParticipantByVideoStreamId and
 *     findParticipantByAudioStreamId. They are declared only when this header is compiled as C++.
 */
#ifndef CONVOKE_CONVOKE_H
#define CONVOKE_CONVOKE_H

#include <stdbool.h>

#include "export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------
 * Callbacks
 * ------------------------------------------------------------------------------------------- */

/* Slots of the callback table, for SetDelegateCallback. */
typedef enum DelegateCallbackSlot {
  DelegateCallbackSlotParticipantAdded = 0,        /* ConvokeParticipantCallback */
  DelegateCallbackSlotParticipantRemoved = 1,      /* ConvokeParticipantCallback */
  DelegateCallbackSlotParticipantAudioAdded = 2,   /* ConvokeParticipantCallback */
  DelegateCallbackSlotParticipantAudioUpdated = 3, /* ConvokeParticipantCallback */
  DelegateCallbackSlotParticipantVideoAdded = 4,   /* ConvokeParticipantStreamCallback */
  DelegateCallbackSlotParticipantVideoUpdated = 5, /* ConvokeParticipantStreamCallback */
  DelegateCallbackSlotParticipantVideoRemoved = 6, /* ConvokeParticipantStreamCallback */
  DelegateCallbackSlotParticipantVideoRemoteLayoutChanged =
      7,                                                /* ConvokeParticipantStreamCallback */
  DelegateCallbackSlotVideoStreamBufferReady = 8,       /* ConvokeVideoBufferCallback */
  DelegateCallbackSlotVideoFrameReady = 9,              /* ConvokeVideoBufferCallback */
  DelegateCallbackSlotInputMeterChanged = 10,           /* ConvokeMeterCallback */
  DelegateCallbackSlotOutputMeterChanged = 11,          /* ConvokeMeterCallback */
  DelegateCallbackSlotParticipantAmplitudeChanged = 12, /* ConvokeAmplitudeCallback */
  DelegateCallbackSlotLogMessage = 13,                  /* never called, see below */
  DelegateCallbackSlotBinaryPlaybackEnded = 14,         /* ConvokePlaybackCallback */
  DelegateCallbackSlotBinaryPlaybackFailed = 15,        /* ConvokePlaybackCallback */
  DelegateCallbackSlotAudioConditionUpdate = 16,        /* ConvokeAudioConditionCallback */
  DelegateCallbackSlotVideoConditionUpdate = 17,        /* ConvokeVideoConditionCallback */
  DelegateCallbackSlotCount = 18
} DelegateCallbackSlot;

/* Slots 0-3: a participant joined or left, or its audio stream was added or replaced. The UUID is
 * the participant's identity (an empty participant UUID arrives as "", never NULL). */
typedef void (*ConvokeParticipantCallback)(const char* participantUuid);
/* Slots 4-7: a video stream of a participant was added, re-announced, removed, or its remote layout
 * changed. */
typedef void (*ConvokeParticipantStreamCallback)(const char* participantUuid, const char* streamId);
/* Slot 8: the engine has a frame buffer for a stream (a timer then polls it). Slot 9: a new frame
 * of the stream is ready in pixelBuffer, the engine's buffer handle (runs on the stream's timer
 * thread). */
typedef void (*ConvokeVideoBufferCallback)(const char* streamId, void* pixelBuffer);
/* Slots 10, 11: the local microphone / speaker level. */
typedef void (*ConvokeMeterCallback)(unsigned char level);
/* Slot 12: a participant's speech level and whether it is muted. */
typedef void (*ConvokeAmplitudeCallback)(const char* participantUuid, unsigned char amplitude,
                                         bool muted);
/* Slot 13 exists for numbering only: log lines never reach the host through the table. */
/* Slots 14, 15: a sound started with playSound ended or failed. */
typedef void (*ConvokePlaybackCallback)(unsigned long long playbackId);
/* Slot 16: network and load figures of the audio link (a missing figure is 0). */
typedef void (*ConvokeAudioConditionCallback)(int received, int sent, int dataBytesDropped,
                                              int ctrlBytesDropped, int cpuUsage, int bars,
                                              int upstreamLoss, int upstreamLatency,
                                              int downstreamLoss, int downstreamLatency);
/* Slot 17: the same for the video link; the library does not raise it at present. */
typedef void (*ConvokeVideoConditionCallback)(int received, int sent, int dataBytesDropped,
                                              int ctrlBytesDropped, int cpuUsage, int bars);

/* ---------------------------------------------------------------------------------------------
 * Lifecycle, meeting and last error
 * ------------------------------------------------------------------------------------------- */

/* Clears every callback slot and installs the library's C bridge as the session's delegate; the
 * first call also creates the session and binds the media engines. Call it once before anything
 * else; calling it again clears the callbacks registered so far. */
CONVOKE_API void ConvokeInitialize(void);

/* Stores function (cast to void*) in callback slot `slot` (a DelegateCallbackSlot); NULL switches
 * that notification off. Register after ConvokeInitialize, which clears the table. A slot outside
 * 0-17 is ignored. */
CONVOKE_API void SetDelegateCallback(unsigned int slot, void* function);

/* Releases the camera, microphone, speaker and resolution lists (their pointers become invalid).
 * The screen list stays valid until the next getVideoDevices. Does not leave the meeting. */
CONVOKE_API void ConvokeDeallocate(void);

/* Joins meeting `meetingId` on media server `server` (a host name or address, without scheme or
 * port) as `displayName`. participantUuid may be "" to have one generated. server, meetingId,
 * meetingKey and displayName must be non-empty, else the join fails at once. completion is called
 * exactly once, on the calling thread, before joinMeeting returns, with true when the video engine
 * connected; the local participant has then been reported through slot 0. completion must not be
 * NULL (with NULL the join still runs but its outcome is not reported). */
CONVOKE_API void joinMeeting(const char* server, const char* meetingId, const char* meetingKey,
                             const char* participantUuid, const char* displayName,
                             void (*completion)(bool));

/* Leaves the meeting: disconnects both engines, stops every video frame timer and forgets every
 * participant (no notifications). May be called in any state. When it returns no frame callback
 * runs or will begin (it waits for one running on another thread; see convention 4); the stopped
 * timer threads end within about 2 seconds. */
CONVOKE_API void exitMeeting(void);

/* The outcome of the calling thread's latest validated command ("" before the first). The text
 * belongs to the library and stays valid until the same thread's next getLastError call. */
CONVOKE_API const char* getLastError(void);

/* ---------------------------------------------------------------------------------------------
 * Audio commands and sounds (non-zero: accepted; 0: refused, see getLastError)
 * ------------------------------------------------------------------------------------------- */

/* Switch a microphone (input) or speaker (output) device on or off. "Invalid device name" for an
 * empty id. An enabled microphone starts at volume 100, an enabled speaker at 50. */
CONVOKE_API int enableAudioInput(const char* deviceId);
CONVOKE_API int disableAudioInput(const char* deviceId);
CONVOKE_API int enableAudioOutput(const char* deviceId);
CONVOKE_API int disableAudioOutput(const char* deviceId);
/* Playback volume of one received audio stream, 0-255. "Invalid stream ID" for an empty id. */
CONVOKE_API int setAudioStreamVolume(const char* streamId, unsigned char volume);
/* Device volumes, 0-100: "Invalid device" for an empty id, then "Invalid volume value" above 100.
 * setAudioInputVolume also prints the command on standard output. */
CONVOKE_API int setAudioInputVolume(const char* deviceId, unsigned char volume);
CONVOKE_API int setAudioOutputVolume(const char* deviceId, unsigned char volume);
/* Plays `size` bytes of sound data (the engine's format). The bytes are not copied: they must stay
 * valid until slot 14 or 15 reports the end. data may be NULL (then 0 is returned). Does not touch
 * the last-error text. */
CONVOKE_API int playSound(const char* data, unsigned long size);
/* Stops the sound started with the same data pointer. data may be NULL (then 0 is returned). */
CONVOKE_API int stopSound(const char* data);

/* ---------------------------------------------------------------------------------------------
 * Video commands (non-zero: accepted; 0: refused, see getLastError)
 * ------------------------------------------------------------------------------------------- */

/* Starts capture from a camera in `mode` (the engine's profile name). "Invalid camera device",
 * "Invalid camera mode". */
CONVOKE_API int enableVideoCapture(const char* deviceId, const char* mode);
/* Stops capture from a camera ("Invalid camera device"). The name is spelled so on purpose. */
CONVOKE_API int diableVideoCapture(const char* deviceId);
/* Starts or stops a network (URL) video source. "Invalid URL"; an empty profile is
 * "Invalid camera mode"; name may be "". */
CONVOKE_API int enableNetworkVideo(const char* url, const char* profile, const char* name);
CONVOKE_API int disableNetworkVideo(const char* url);
/* Starts rendering a known stream in `colorspace` (for example "RGB888") at its announced size;
 * frames then arrive through slots 8 and 9. "Can't find VideoInfo for streamId" for an unknown
 * stream. The stream's frame timer is stopped first either way. */
CONVOKE_API int enableVideoStream(const char* streamId, const char* colorspace);
/* Stops rendering a stream (its frame timer stops even when the engine refuses). "Invalid
 * streamId" for an empty id. When it returns no frame callback of the stream runs or will begin
 * (convention 4). */
CONVOKE_API int disableVideoStream(const char* streamId);
/* Pause and resume the frame timer of a rendered stream; nothing when it has none. When pause
 * returns no frame callback of the stream runs or will begin (convention 4). Resume keeps the
 * stream's one timer thread when it still runs. */
CONVOKE_API void pauseVideoFrameProcessing(const char* streamId);
CONVOKE_API void resumeVideoFrameProcessing(const char* streamId);
/* Passes the device orientation (the video engine's values) to the video engine. */
CONVOKE_API void setDeviceOrientation(int orientation);

/* ---------------------------------------------------------------------------------------------
 * Tracing (values are the engines' own; passed through unchanged)
 * ------------------------------------------------------------------------------------------- */

CONVOKE_API void setTraceLevel(int level); /* both engines, audio first */
CONVOKE_API void audioTraceLevel(int level);
CONVOKE_API void videoTraceLevel(int level);
CONVOKE_API void audioTraceOutputHistory(const char* text);
CONVOKE_API void videoTraceOutputHistory(const char* text);

/* ---------------------------------------------------------------------------------------------
 * Device and capability lists
 *
 * Each function stores a library-owned array of `*count` texts in `*list`. The array stays valid
 * until the next call of the same function (or ConvokeDeallocate). Trust the count: when it is 0
 * the pointer must not be read (it may be stale or NULL). Counts are 16-bit: a list of more than
 * 65535 entries is reported modulo 65536. Never pass these arrays to freeStringArray.
 * ------------------------------------------------------------------------------------------- */

/* Cameras and screens of the video engine. Any of the four pointers may be NULL. */
CONVOKE_API void getVideoDevices(char*** devices, unsigned short* deviceCount, char*** screens,
                                 unsigned short* screenCount);
/* Microphones / speakers. *preferred receives a fresh copy of the preferred device's id that the
 * host releases with free(), or NULL when no device is preferred. Any of the three pointers may be
 * NULL (with preferred NULL no copy is made). */
CONVOKE_API void getAudioInputDevices(char*** devices, unsigned short* deviceCount,
                                      char** preferred);
CONVOKE_API void getAudioOutputDevices(char*** devices, unsigned short* deviceCount,
                                       char** preferred);
/* The send codecs (resolutions) a camera supports. codecs and codecCount may be NULL. */
CONVOKE_API void getSupportedVideoSendResolutions(const char* deviceId, char*** codecs,
                                                  unsigned short* codecCount);

/* ---------------------------------------------------------------------------------------------
 * Participant and video-stream queries
 *
 * Returned texts point into library-owned buffers of the calling thread (three per thread): they
 * stay valid until the same thread's next query that fills the same buffer, that is, the next
 * getParticipantString, getParticipantAudioInfoStreamId or getParticipantAudioInfoSite for the
 * participant texts, the next getVideoInfoString for stream texts, the next
 * getParticipantVideoInfoAt for its stream ids. Queries on other threads never change them. Unknown
 * UUIDs, stream ids and keys are not errors: texts are NULL, flags false, numbers 0.
 * ------------------------------------------------------------------------------------------- */

/* Field selectors of the queries. */
typedef enum InfoKey {
  InfoKeyId = 0,        /* participant UUID / stream id */
  InfoKeySite = 1,      /* participant site / stream site */
  InfoKeyName = 2,      /* stream display name */
  InfoKeyCodecName = 3, /* stream codec name */
  InfoKeyLocal = 4,     /* participant is local / stream is local */
  InfoKeyActive = 5,    /* stream is active (has a frame buffer) */
  InfoKeyLayout = 6,    /* stream layout constant, 0-255 */
  InfoKeyWidth = 7,     /* stream width in pixels */
  InfoKeyHeight = 8     /* stream height in pixels */
} InfoKey;

/* True when text names a screen source or a screen codec ("Screen Capture", "ffv1 Lossless",
 * "VP8 4K (10FPS)"). */
CONVOKE_API bool isScreenShare(const char* text);
/* *out := the participant's UUID (key 0) or site (key 1), else NULL. out may be NULL. */
CONVOKE_API void getParticipantString(const char* uuid, int key, const char** out);
/* True only for key 4 (InfoKeyLocal) of the local participant. */
CONVOKE_API bool getParticipantBool(const char* uuid, int key);
/* Number of video streams of a participant (0 when unknown). */
CONVOKE_API unsigned int getParticipantVideoInfoCount(const char* uuid);
/* *out := the stream id at `index` in ascending stream-id order; *out is left unchanged for an
 * unknown participant or an index at or past the count. out may be NULL. */
CONVOKE_API void getParticipantVideoInfoAt(const char* uuid, unsigned int index, const char** out);
/* *out := the stream's id, site, name or codec name (keys 0-3), else NULL. out may be NULL. */
CONVOKE_API void getVideoInfoString(const char* streamId, int key, const char** out);
/* Key 4: the stream is local; key 5: the stream is active; else false. */
CONVOKE_API bool getVideoInfoBool(const char* streamId, int key);
/* Key 6: layout; key 7: width; key 8: height; else 0. */
CONVOKE_API int getVideoInfoInt(const char* streamId, int key);
/* *out := the participant's audio stream id / audio site, NULL when unknown or empty. out may be
 * NULL. */
CONVOKE_API void getParticipantAudioInfoStreamId(const char* uuid, const char** out);
CONVOKE_API void getParticipantAudioInfoSite(const char* uuid, const char** out);

#ifdef __cplusplus
} /* extern "C" */

/* ---- entry points with C++ linkage ------------------------------------------------------- */

/* Frees array[0] .. array[count-1] and then array, all with free(). Only for arrays the host built
 * itself with malloc: the library releases its own list arrays. */
CONVOKE_API void freeStringArray(char** array, unsigned short count);

/* Routes the engines' own trace lines into the library's log (true) or stops that (false). */
CONVOKE_API void enableInlineAudioVideoLogging(bool enable);

/* Copies the UUID of the participant owning a video / audio stream into out with
 * strncpy(out, uuid, size): a UUID of `size` characters or more leaves out without a terminating
 * NUL. On a miss out[0] is set to NUL. With size 0 or out NULL nothing is written. */
CONVOKE_API void findParticipantByVideoStreamId(const char* streamId, char* out,
                                                unsigned short size);
CONVOKE_API void findParticipantByAudioStreamId(const char* streamId, char* out,
                                                unsigned short size);

#endif /* __cplusplus */

#endif /* CONVOKE_CONVOKE_H */
