// The simulated video engine: the video half of the engines' C ABI, over the shared simulation.
#include "engine_core.h"

using namespace ktsim;

KT_ENGINE_API void VideoSetCallback(EngineEventCallback callback) {
  core::SetCallback(KTSIM_VIDEO, callback);
}

KT_ENGINE_API bool VideoConnect(const char* url, const char* mode, const char* empty,
                                const char* displayName, const char* uuid, const char* key,
                                const char* cipher, int a, int b, int c) {
  return core::Connect(KTSIM_VIDEO, url, mode, empty, displayName, uuid, key, cipher, a, b, c);
}

KT_ENGINE_API void VideoDisconnect(int how) { core::Disconnect(KTSIM_VIDEO, how); }

KT_ENGINE_API bool VideoSetRoot(const char* xml) { return core::SetRoot(KTSIM_VIDEO, xml); }

KT_ENGINE_API int VideoGetLastError(char* buffer, int size) {
  return core::GetLastError(KTSIM_VIDEO, buffer, size);
}

KT_ENGINE_API const char* VideoGetState(void) { return core::GetState(KTSIM_VIDEO); }

KT_ENGINE_API void VideoSetTraceLevel(int level) { core::SetTraceLevel(KTSIM_VIDEO, level); }

KT_ENGINE_API void VideoTraceOutputHistory(const char* text) {
  core::TraceOutputHistory(KTSIM_VIDEO, text);
}

KT_ENGINE_API void VideoTraceSetMessageCallback(EngineTraceCallback callback) {
  core::TraceSetMessageCallback(KTSIM_VIDEO, callback);
}

KT_ENGINE_API void VideoSetDeviceOrientation(int orientation) {
  core::SetDeviceOrientation(orientation);
}

KT_ENGINE_API int VideoFrameReady(const char* streamId) { return core::FrameReady(streamId); }
