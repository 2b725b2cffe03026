// The engines' behaviour, shared by libktaudio-mac and libktvideo-mac. Each engine library's C
// functions are one-line forwards to these, so that both engines see one simulation.
#ifndef KTSIM_ENGINE_CORE_H
#define KTSIM_ENGINE_CORE_H

#include "ktengine/ktengine.h"
#include "ktsim/ktsim.h"

namespace ktsim {
namespace core {

// Every function records the call in the call log, never throws and never calls the product while
// holding a lock of the simulation.
KTSIM_API void SetCallback(ktsim_engine engine, EngineEventCallback callback) noexcept;
KTSIM_API bool Connect(ktsim_engine engine, const char* url, const char* mode, const char* empty,
                       const char* display_name, const char* uuid, const char* key,
                       const char* cipher, int a, int b, int c) noexcept;
KTSIM_API void Disconnect(ktsim_engine engine, int how) noexcept;
KTSIM_API bool SetRoot(ktsim_engine engine, const char* xml) noexcept;
KTSIM_API int GetLastError(ktsim_engine engine, char* buffer, int size) noexcept;
KTSIM_API const char* GetState(ktsim_engine engine) noexcept;
KTSIM_API void SetTraceLevel(ktsim_engine engine, int level) noexcept;
KTSIM_API void TraceOutputHistory(ktsim_engine engine, const char* text) noexcept;
KTSIM_API void TraceSetMessageCallback(ktsim_engine engine, EngineTraceCallback callback) noexcept;
KTSIM_API bool PlaySound(const char* data, unsigned long size, const char* extra) noexcept;
KTSIM_API bool StopSound(const char* data) noexcept;
KTSIM_API void SetDeviceOrientation(int orientation) noexcept;
KTSIM_API int FrameReady(const char* stream_id) noexcept;

}  // namespace core
}  // namespace ktsim

#endif  // KTSIM_ENGINE_CORE_H
