// The open engines' shared core: libktaudio-mac and libktvideo-mac forward every C function here,
// so that both engines see one meeting (one Janus session, one publishing peer connection for the
// local microphone and camera, one subscription per remote publisher) and each delivers its events
// on its own ordered thread.
#ifndef KTOPEN_CORE_H
#define KTOPEN_CORE_H

#include "ktengine/ktengine.h"

#if defined(_WIN32)
#define KTOPEN_API
#else
#define KTOPEN_API __attribute__((visibility("default")))
#endif

namespace ktopen {

enum EngineId { kAudio = 0, kVideo = 1 };

namespace core {

// Every function may be called from any thread, never throws, and never calls the product while
// holding a lock of the core.
KTOPEN_API void SetCallback(EngineId engine, EngineEventCallback callback) noexcept;
KTOPEN_API bool Connect(EngineId engine, const char* url, const char* display_name,
                        const char* uuid) noexcept;
KTOPEN_API void Disconnect(EngineId engine) noexcept;
KTOPEN_API bool SetRoot(EngineId engine, const char* xml) noexcept;
KTOPEN_API int GetLastError(EngineId engine, char* buffer, int size) noexcept;
KTOPEN_API const char* GetState(EngineId engine) noexcept;
KTOPEN_API void SetTraceLevel(EngineId engine, int level) noexcept;
KTOPEN_API void TraceSetMessageCallback(EngineId engine, EngineTraceCallback callback) noexcept;
KTOPEN_API bool Refuse(EngineId engine, const char* what) noexcept;
KTOPEN_API int FrameReady(const char* stream_id) noexcept;
// VideoSetDeviceOrientation: degrees clockwise, to the nearest quarter turn.
KTOPEN_API void SetOrientation(int degrees) noexcept;
// AudioPlaySound and AudioStopSound: the bytes are read before PlaySound returns.
KTOPEN_API bool PlaySound(const char* data, unsigned long size) noexcept;
KTOPEN_API bool StopSound(const char* data) noexcept;

}  // namespace core
}  // namespace ktopen

#endif  // KTOPEN_CORE_H
