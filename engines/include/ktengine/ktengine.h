/*
 * ktengine.h - the media engines' C ABI, as libktaudio-mac and libktvideo-mac export it.
 *
 * The one declaration of the engine ABI, shared by every engine and the product: both engine
 * families (engines/sim, engines/open) define these functions, the product declares the engine
 * functions it calls through it (src/meeting/EngineApi.h), and tests and tools that drive an
 * engine directly use it too. Its declarations match the maker's engines exactly; `bool` is the
 * one-byte C bool.
 *
 * KT_ENGINE_API marks each function of the ABI: C linkage, and exported from an engine library
 * even when the rest of it is built with hidden visibility. Engines put it on their definitions.
 */
#ifndef KTENGINE_KTENGINE_H
#define KTENGINE_KTENGINE_H

#include <stdbool.h>

#if defined(__cplusplus)
#define KT_ENGINE_LINKAGE extern "C"
#else
#define KT_ENGINE_LINKAGE
#endif
#if defined(_WIN32)
#define KT_ENGINE_API KT_ENGINE_LINKAGE
#else
#define KT_ENGINE_API KT_ENGINE_LINKAGE __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* `context` is always NULL; `xml` is the event document, owned by the engine, valid during the
 * call only. Runs on the engine's event thread. */
typedef void (*EngineEventCallback)(void* context, const char* xml);
/* A trace line of the engine, on the engine's event thread; `text` is valid during the call. */
typedef void (*EngineTraceCallback)(unsigned int level, const char* text);

KT_ENGINE_API void AudioSetCallback(EngineEventCallback callback);
KT_ENGINE_API void VideoSetCallback(EngineEventCallback callback);
KT_ENGINE_API bool AudioConnect(const char* url, const char* mode, const char* empty,
                                const char* displayName, const char* uuid, const char* key,
                                const char* cipher, int, int, int);
KT_ENGINE_API bool VideoConnect(const char* url, const char* mode, const char* empty,
                                const char* displayName, const char* uuid, const char* key,
                                const char* cipher, int, int, int);
KT_ENGINE_API void AudioDisconnect(int);
KT_ENGINE_API void VideoDisconnect(int);
KT_ENGINE_API bool AudioSetRoot(const char* xml);
KT_ENGINE_API bool VideoSetRoot(const char* xml);
KT_ENGINE_API int AudioGetLastError(char* buffer, int size);
KT_ENGINE_API int VideoGetLastError(char* buffer, int size);
KT_ENGINE_API const char* AudioGetState(void);
KT_ENGINE_API const char* VideoGetState(void);
KT_ENGINE_API void AudioSetTraceLevel(int level);
KT_ENGINE_API void VideoSetTraceLevel(int level);
KT_ENGINE_API void AudioTraceOutputHistory(const char* text);
KT_ENGINE_API void VideoTraceOutputHistory(const char* text);
KT_ENGINE_API void AudioTraceSetMessageCallback(EngineTraceCallback callback);
KT_ENGINE_API void VideoTraceSetMessageCallback(EngineTraceCallback callback);
KT_ENGINE_API bool AudioPlaySound(const char* data, unsigned long size, const char* extra);
KT_ENGINE_API bool AudioStopSound(const char* data);
KT_ENGINE_API void VideoSetDeviceOrientation(int orientation);
KT_ENGINE_API int VideoFrameReady(const char* streamId);

#ifdef __cplusplus
}
#endif

#endif /* KTENGINE_KTENGINE_H */
