/*
 * ktengine.h - the media engines' C ABI, as libktaudio-mac and libktvideo-mac export it.
 *
 * The one declaration of the engine ABI: the simulated engines are built from it, the product
 * declares the engine functions it calls through it (src/meeting/EngineApi.h), and tests and tools
 * that drive the simulated engines directly use it too. Its declarations match the maker's engines
 * exactly; `bool` is the one-byte C bool.
 */
#ifndef KTSIM_KTENGINE_H
#define KTSIM_KTENGINE_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* `context` is always NULL; `xml` is the event document, owned by the engine, valid during the
 * call only. Runs on the engine's event thread. */
typedef void (*EngineEventCallback)(void* context, const char* xml);
/* A trace line of the engine, on the engine's event thread; `text` is valid during the call. */
typedef void (*EngineTraceCallback)(unsigned int level, const char* text);

void AudioSetCallback(EngineEventCallback callback);
void VideoSetCallback(EngineEventCallback callback);
bool AudioConnect(const char* url, const char* mode, const char* empty, const char* displayName,
                  const char* uuid, const char* key, const char* cipher, int, int, int);
bool VideoConnect(const char* url, const char* mode, const char* empty, const char* displayName,
                  const char* uuid, const char* key, const char* cipher, int, int, int);
void AudioDisconnect(int);
void VideoDisconnect(int);
bool AudioSetRoot(const char* xml);
bool VideoSetRoot(const char* xml);
int AudioGetLastError(char* buffer, int size);
int VideoGetLastError(char* buffer, int size);
const char* AudioGetState(void);
const char* VideoGetState(void);
void AudioSetTraceLevel(int level);
void VideoSetTraceLevel(int level);
void AudioTraceOutputHistory(const char* text);
void VideoTraceOutputHistory(const char* text);
void AudioTraceSetMessageCallback(EngineTraceCallback callback);
void VideoTraceSetMessageCallback(EngineTraceCallback callback);
bool AudioPlaySound(const char* data, unsigned long size, const char* extra);
bool AudioStopSound(const char* data);
void VideoSetDeviceOrientation(int orientation);
int VideoFrameReady(const char* streamId);

#ifdef __cplusplus
}
#endif

#endif /* KTSIM_KTENGINE_H */
