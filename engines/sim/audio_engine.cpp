// The simulated audio engine: the audio half of the engines' C ABI, over the shared simulation.
#include "engine_core.h"

using namespace ktsim;

KT_ENGINE_API void AudioSetCallback(EngineEventCallback callback) {
  core::SetCallback(KTSIM_AUDIO, callback);
}

KT_ENGINE_API bool AudioConnect(const char* url, const char* mode, const char* empty,
                                const char* displayName, const char* uuid, const char* key,
                                const char* cipher, int a, int b, int c) {
  return core::Connect(KTSIM_AUDIO, url, mode, empty, displayName, uuid, key, cipher, a, b, c);
}

KT_ENGINE_API void AudioDisconnect(int how) { core::Disconnect(KTSIM_AUDIO, how); }

KT_ENGINE_API bool AudioSetRoot(const char* xml) { return core::SetRoot(KTSIM_AUDIO, xml); }

KT_ENGINE_API int AudioGetLastError(char* buffer, int size) {
  return core::GetLastError(KTSIM_AUDIO, buffer, size);
}

KT_ENGINE_API const char* AudioGetState(void) { return core::GetState(KTSIM_AUDIO); }

KT_ENGINE_API void AudioSetTraceLevel(int level) { core::SetTraceLevel(KTSIM_AUDIO, level); }

KT_ENGINE_API void AudioTraceOutputHistory(const char* text) {
  core::TraceOutputHistory(KTSIM_AUDIO, text);
}

KT_ENGINE_API void AudioTraceSetMessageCallback(EngineTraceCallback callback) {
  core::TraceSetMessageCallback(KTSIM_AUDIO, callback);
}

KT_ENGINE_API bool AudioPlaySound(const char* data, unsigned long size, const char* extra) {
  return core::PlaySound(data, size, extra);
}

KT_ENGINE_API bool AudioStopSound(const char* data) { return core::StopSound(data); }
