#include "gl/platform/glentrypoints.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_set>

#ifdef _WIN32
#include <windows.h>
#else
#include <EGL/egl.h>
#include <GL/glx.h>
#endif

namespace Tavren {
namespace Vyx {

bool isGLExtensionHidden(const char* name)
{
    const char* hidden = std::getenv("VYX_HIDE_GL_EXTENSIONS");
    if (!hidden || !name || !*name)
        return false;
    const std::size_t length = std::strlen(name);
    for (const char* p = std::strstr(hidden, name); p; p = std::strstr(p + 1, name)) {
        const bool startsWord = p == hidden || p[-1] == ' ';
        const bool endsWord = p[length] == '\0' || p[length] == ' ';
        if (startsWord && endsWord)
            return true;
    }
    return false;
}

#ifdef _WIN32

void* resolveGLEntryPoint(const char* name)
{
    if (!name)
        return nullptr;
    // Some drivers answer 1, 2, 3 or -1 instead of null for what they lack,
    // and GL 1.1 functions only come from the DLL's own exports.
    PROC proc = wglGetProcAddress(name);
    const std::intptr_t value = reinterpret_cast<std::intptr_t>(proc);
    if (value == 0 || value == 1 || value == 2 || value == 3 || value == -1) {
        HMODULE module = GetModuleHandleA("OpenGL32.dll");
        proc = module ? GetProcAddress(module, name) : nullptr;
    }
    return reinterpret_cast<void*>(proc);
}

#else

namespace {

// Our own values, so this file needs nothing from the system's GL headers.
constexpr unsigned glVersionEnum = 0x1F02;
constexpr unsigned glExtensionsEnum = 0x1F03;
constexpr unsigned glNumExtensionsEnum = 0x821D;
constexpr unsigned glContextProfileMaskEnum = 0x9126;
constexpr int glContextCoreProfileBit = 0x1;

using GetIntegervFn = void (*)(unsigned, int*);
using GetStringFn = const unsigned char* (*)(unsigned);
using GetStringiFn = const unsigned char* (*)(unsigned, unsigned);

void* nativeLookup(bool egl, const char* name)
{
    if (egl)
        return reinterpret_cast<void*>(eglGetProcAddress(name));
    return reinterpret_cast<void*>(glXGetProcAddressARB(reinterpret_cast<const GLubyte*>(name)));
}

// What the current context offers. The extension set is the costly part and is
// kept while the context handle and its extension count stay the same, so the
// loader's run of several hundred lookups reads it once.
struct ContextFacts
{
    bool egl = false;
    void* context = nullptr;
    std::size_t extensionCount = 0;
    std::unordered_set<std::string> extensions;
    int version = 0;
    bool core = false;
};

thread_local ContextFacts facts;

// Version from the GL_VERSION string, which every context has, unlike the
// GL_MAJOR_VERSION query that 2.x contexts reject with an error.
int parseVersion(const unsigned char* text)
{
    if (!text)
        return 0;
    const char* s = reinterpret_cast<const char*>(text);
    if (std::strncmp(s, "OpenGL ES ", 10) == 0)
        s += 10;
    int major = 0;
    int minor = 0;
    while (*s >= '0' && *s <= '9')
        major = major * 10 + (*s++ - '0');
    if (*s == '.')
        ++s;
    if (*s >= '0' && *s <= '9')
        minor = *s - '0';
    return major * 10 + minor;
}

void insertWords(std::unordered_set<std::string>& set, const char* text)
{
    while (text && *text) {
        while (*text == ' ')
            ++text;
        const char* end = text;
        while (*end && *end != ' ')
            ++end;
        if (end != text)
            set.emplace(text, std::size_t(end - text));
        text = end;
    }
}

bool refreshFacts(bool egl, void* context)
{
    auto getIntegerv = reinterpret_cast<GetIntegervFn>(nativeLookup(egl, "glGetIntegerv"));
    auto getString = reinterpret_cast<GetStringFn>(nativeLookup(egl, "glGetString"));
    if (!getIntegerv || !getString)
        return false;

    const int version = parseVersion(getString(glVersionEnum));
    GetStringiFn getStringi = nullptr;
    const char* legacyList = nullptr;
    std::size_t count = 0;
    if (version >= 30) {
        getStringi = reinterpret_cast<GetStringiFn>(nativeLookup(egl, "glGetStringi"));
        int n = 0;
        getIntegerv(glNumExtensionsEnum, &n);
        count = n > 0 ? std::size_t(n) : 0;
    } else {
        legacyList = reinterpret_cast<const char*>(getString(glExtensionsEnum));
        count = legacyList ? std::strlen(legacyList) : 0;
    }

    if (facts.egl != egl || facts.context != context || facts.extensionCount != count
        || facts.version != version) {
        facts.egl = egl;
        facts.context = context;
        facts.extensionCount = count;
        facts.version = version;
        facts.extensions.clear();
        if (getStringi) {
            for (std::size_t i = 0; i < count; ++i) {
                if (const unsigned char* name = getStringi(glExtensionsEnum, unsigned(i)))
                    facts.extensions.emplace(reinterpret_cast<const char*>(name));
            }
        } else {
            insertWords(facts.extensions, legacyList);
        }
        for (auto it = facts.extensions.begin(); it != facts.extensions.end();)
            it = isGLExtensionHidden(it->c_str()) ? facts.extensions.erase(it) : std::next(it);
    }

    // The profile mask exists from 3.2; a 3.1 context without
    // GL_ARB_compatibility has already dropped the old functions.
    if (version >= 32) {
        int mask = 0;
        getIntegerv(glContextProfileMaskEnum, &mask);
        facts.core = (mask & glContextCoreProfileBit) != 0;
    } else {
        facts.core = version == 31 && !facts.extensions.count("GL_ARB_compatibility");
    }
    return true;
}

bool anyExtensionAdvertised(const char* list)
{
    std::string name;
    for (const char* p = list;; ++p) {
        if (*p == ' ' || *p == '\0') {
            if (!name.empty() && facts.extensions.count(name))
                return true;
            name.clear();
            if (*p == '\0')
                return false;
        } else {
            name.push_back(*p);
        }
    }
}

} // namespace

void* resolveGLEntryPoint(const char* name)
{
    const GLEntryPointInfo* info = findGLEntryPointInfo(name);
    if (!info)
        return nullptr;

    bool egl = true;
    void* context = eglGetCurrentContext();
    if (context == EGL_NO_CONTEXT) {
        egl = false;
        context = glXGetCurrentContext();
    }
    if (!context || !refreshFacts(egl, context))
        return nullptr;

    // The dispatch layer hands out a stub for any name, so the answer must
    // come from what this context says it supports.
    const bool inCore = info->coreVersion != 0 && facts.version >= info->coreVersion
                        && !(facts.core && info->removedInCore);
    if (!inCore && !anyExtensionAdvertised(info->extensions))
        return nullptr;
    return nativeLookup(egl, name);
}

#endif

} // namespace Vyx
} // namespace Tavren
