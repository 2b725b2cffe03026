// The C functions of the audio engine (libktaudio-mac) and the video engine (libktvideo-mac).
// They are resolved by the dynamic linker from the engine libraries beside the product, so a
// same-named engine library (the simulated ones, or the maker's) supplies them.
#ifndef CONVOKE_MEETING_ENGINEAPI_H
#define CONVOKE_MEETING_ENGINEAPI_H

extern "C" {

// `context` is ignored; `xml` is the event document, owned by the engine, valid during the call.
typedef void (*EngineEventCallback)(void* context, const char* xml);
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

}  // extern "C"

#endif  // CONVOKE_MEETING_ENGINEAPI_H
