#include <VyxGL.h>

#include <QOpenGLFunctions>

bool drawVyxFirst(QOpenGLFunctions* qt)
{
    GLint viewport[4] = {};
    if (qt)
        qt->glGetIntegerv(GL_VIEWPORT, viewport);
    // GL 1.1 names as Qt's header declares them stay plain functions.
    glGetIntegerv(GL_VIEWPORT, viewport);
    Tavren::Vyx::FramebufferObject fbo;
    if (!fbo.bind())
        return false;
    Tavren::Vyx::Texture* texture = fbo.createTexture2D(GL_COLOR_ATTACHMENT0, GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, 4, 4);
    const bool complete = texture != nullptr && _ptrc_glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
    fbo.detachAll();
    fbo.unbind();
    delete texture;
    return complete;
}
