#pragma once

#include "core/vyxexport.h"

namespace Tavren::Vyx {

// Records the state a render pass changes and puts it back when it dies: the draw and read
// framebuffers, the viewport, blending, depth test, depth writes and function, face culling and
// the clear colour and depth. The bound program and textures are left to their own classes.
class VYXGL_EXPORT RenderStateGuard
{
public:
    RenderStateGuard();
    ~RenderStateGuard();
    RenderStateGuard(const RenderStateGuard&) = delete;
    RenderStateGuard& operator=(const RenderStateGuard&) = delete;

    // Puts the recorded state back now, say before drawing into the caller's target.
    void restore() const;

private:
    int _drawFramebuffer = 0;
    int _readFramebuffer = 0;
    int _viewport[4] = {};
    int _depthFunc = 0;
    float _clearColour[4] = {};
    double _clearDepth = 1.0;
    bool _blend = false;
    bool _depthTest = false;
    bool _depthMask = true;
    bool _cullFace = false;
};

} // namespace Tavren::Vyx
