#pragma once

namespace Tavren::Vyx {

// The EGL context current on this thread, else the GLX context, else null.
//
// The dispatch layer's own queries check the process id on every call, which costs a system
// call. So the answer is kept per thread and forgotten by every call that can change it: the
// library defines eglMakeCurrent, eglReleaseThread, eglBindAPI, eglDestroyContext, eglTerminate,
// glXMakeCurrent and glXMakeContextCurrent itself, forwards them to the real ones and forgets
// the thread's answer afterwards; eglGetProcAddress and glXGetProcAddress(ARB) hand out those
// forwarders for the same names; a fork forgets too. The two destroy calls also drop the
// library's per-context records of the context they destroy. The cached answer is used only when
// every one of those names resolves to the library in this process (nothing earlier in the
// symbol search order, such as a preloaded library, defines them), and not at all when
// VYX_NATIVE_CONTEXT_CACHE is "0".
void* currentNativeContext();

// Forgets this thread's answer: the next query asks EGL and GLX again.
void forgetCurrentNativeContext();

// True when currentNativeContext() may answer from its cache in this process.
bool nativeContextCacheEnabled();

} // namespace Tavren::Vyx
