// The open video engine: the video half of the engines' C ABI, over the shared open core.
#include "core.h"

using namespace ktopen;

KT_ENGINE_API void VideoSetCallback(EngineEventCallback callback) {
  core::SetCallback(kVideo, callback);
}

KT_ENGINE_API bool VideoConnect(const char* url, const char*, const char*, const char* displayName,
                                const char* uuid, const char*, const char*, int, int, int) {
  return core::Connect(kVideo, url, displayName, uuid);
}

KT_ENGINE_API void VideoDisconnect(int) { core::Disconnect(kVideo); }

KT_ENGINE_API bool VideoSetRoot(const char* xml) { return core::SetRoot(kVideo, xml); }

KT_ENGINE_API int VideoGetLastError(char* buffer, int size) {
  return core::GetLastError(kVideo, buffer, size);
}

KT_ENGINE_API const char* VideoGetState(void) { return core::GetState(kVideo); }

KT_ENGINE_API void VideoSetTraceLevel(int level) { core::SetTraceLevel(kVideo, level); }

KT_ENGINE_API void VideoTraceOutputHistory(const char*) {}

KT_ENGINE_API void VideoTraceSetMessageCallback(EngineTraceCallback callback) {
  core::TraceSetMessageCallback(kVideo, callback);
}

KT_ENGINE_API void VideoSetDeviceOrientation(int orientation) { core::SetOrientation(orientation); }

KT_ENGINE_API int VideoFrameReady(const char* streamId) { return core::FrameReady(streamId); }
