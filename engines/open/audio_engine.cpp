// The open audio engine: the audio half of the engines' C ABI, over the shared open core.
#include "core.h"

using namespace ktopen;

KT_ENGINE_API void AudioSetCallback(EngineEventCallback callback) {
  core::SetCallback(kAudio, callback);
}

KT_ENGINE_API bool AudioConnect(const char* url, const char*, const char*, const char* displayName,
                                const char* uuid, const char*, const char*, int, int, int) {
  return core::Connect(kAudio, url, displayName, uuid);
}

KT_ENGINE_API void AudioDisconnect(int) { core::Disconnect(kAudio); }

KT_ENGINE_API bool AudioSetRoot(const char* xml) { return core::SetRoot(kAudio, xml); }

KT_ENGINE_API int AudioGetLastError(char* buffer, int size) {
  return core::GetLastError(kAudio, buffer, size);
}

KT_ENGINE_API const char* AudioGetState(void) { return core::GetState(kAudio); }

KT_ENGINE_API void AudioSetTraceLevel(int level) { core::SetTraceLevel(kAudio, level); }

KT_ENGINE_API void AudioTraceOutputHistory(const char*) {}

KT_ENGINE_API void AudioTraceSetMessageCallback(EngineTraceCallback callback) {
  core::TraceSetMessageCallback(kAudio, callback);
}

KT_ENGINE_API bool AudioPlaySound(const char* data, unsigned long size, const char*) {
  return core::PlaySound(data, size);
}

KT_ENGINE_API bool AudioStopSound(const char* data) { return core::StopSound(data); }
