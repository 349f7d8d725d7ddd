#include "gl/platform/renderstateguard.h"

#include "gl/glloader.h"

namespace Tavren::Vyx {

namespace {

void setCapability(GLenum capability, bool enabled)
{
    if (enabled)
        glEnable(capability);
    else
        glDisable(capability);
}

} // namespace

RenderStateGuard::RenderStateGuard()
    : _blend(glIsEnabled(GL_BLEND) == GL_TRUE)
    , _depthTest(glIsEnabled(GL_DEPTH_TEST) == GL_TRUE)
    , _cullFace(glIsEnabled(GL_CULL_FACE) == GL_TRUE)
{
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &_drawFramebuffer);
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &_readFramebuffer);
    glGetIntegerv(GL_VIEWPORT, _viewport);
    glGetIntegerv(GL_DEPTH_FUNC, &_depthFunc);
    glGetFloatv(GL_COLOR_CLEAR_VALUE, _clearColour);
    glGetDoublev(GL_DEPTH_CLEAR_VALUE, &_clearDepth);
    GLboolean depthMask = GL_TRUE;
    glGetBooleanv(GL_DEPTH_WRITEMASK, &depthMask);
    _depthMask = depthMask == GL_TRUE;
}

RenderStateGuard::~RenderStateGuard()
{
    restore();
}

void RenderStateGuard::restore() const
{
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, GLuint(_drawFramebuffer));
    glBindFramebuffer(GL_READ_FRAMEBUFFER, GLuint(_readFramebuffer));
    glViewport(_viewport[0], _viewport[1], _viewport[2], _viewport[3]);
    setCapability(GL_BLEND, _blend);
    setCapability(GL_DEPTH_TEST, _depthTest);
    setCapability(GL_CULL_FACE, _cullFace);
    glDepthMask(_depthMask ? GL_TRUE : GL_FALSE);
    glDepthFunc(GLenum(_depthFunc));
    glClearColor(_clearColour[0], _clearColour[1], _clearColour[2], _clearColour[3]);
    glClearDepth(_clearDepth);
}

} // namespace Tavren::Vyx
