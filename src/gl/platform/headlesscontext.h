#pragma once

#include "core/vyxexport.h"

#include <QString>

namespace Tavren::Vyx {

// A GL context with no window, on EGL's surfaceless platform: for tools, tests and
// off-screen rendering into framebuffer objects.
class VYXGL_EXPORT HeadlessGLContext
{
public:
    struct Options
    {
        int majorVersion = 4;
        int minorVersion = 5;
        bool coreProfile = true;
        bool debug = false;
    };

    HeadlessGLContext();
    ~HeadlessGLContext();
    HeadlessGLContext(const HeadlessGLContext&) = delete;
    HeadlessGLContext& operator=(const HeadlessGLContext&) = delete;

    // Options for this process: 4.5 core, or the version named by MESA_GL_VERSION_OVERRIDE
    // when that is set (so a run under "3.2" asks for a 3.2 core context).
    static Options defaultOptions();

    // Creates the context; on failure errorString() says why.
    bool create(const Options& options = defaultOptions());
    bool isValid() const;
    bool makeCurrent();
    void doneCurrent();
    // The native EGL context and display handles.
    void* nativeContext() const;
    void* nativeDisplay() const;
    QString errorString() const;

private:
    void destroy();

    void* _display = nullptr;
    void* _context = nullptr;
    QString _error;
};

} // namespace Tavren::Vyx
