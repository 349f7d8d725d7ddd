#include "gl/objects/framebufferobject.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturerelease.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"

#include <memory>

namespace Tavren::Vyx {

namespace {

int aliveFramebuffers = 0;
int fboTexturesAttached = 0;
int activeFboTextures = 0;

bool isColourPoint(unsigned int attachmentPoint)
{
    return attachmentPoint != GL_DEPTH_ATTACHMENT && attachmentPoint != GL_STENCIL_ATTACHMENT &&
           attachmentPoint != GL_DEPTH_STENCIL_ATTACHMENT;
}

bool needsLayerAttach(unsigned int target)
{
    return target == GL_TEXTURE_3D || target == GL_TEXTURE_2D_ARRAY || target == GL_PROXY_TEXTURE_3D ||
           target == GL_PROXY_TEXTURE_2D_ARRAY;
}

bool isProxyTarget(unsigned int target)
{
    return target == GL_PROXY_TEXTURE_3D || target == GL_PROXY_TEXTURE_2D_ARRAY;
}

bool hasLayers(unsigned int target)
{
    switch (target) {
    case GL_TEXTURE_3D:
    case GL_TEXTURE_1D_ARRAY:
    case GL_TEXTURE_2D_ARRAY:
    case GL_TEXTURE_CUBE_MAP:
    case GL_TEXTURE_CUBE_MAP_ARRAY:
    case GL_TEXTURE_2D_MULTISAMPLE_ARRAY: return true;
    default: return false;
    }
}

// attach() takes whole 2D-style textures; layered ones go through attach3D().
bool refuseLayeredTarget(unsigned int target)
{
    VYX_CHECK(false,
              "Texture Target 0x%X is not supported by FramebufferObject::attach() use FramebufferObject::attach3D()",
              target);
    return false;
}

} // namespace

FramebufferObject::FramebufferObject(unsigned int fbo, QObject* parent)
    : QObject(parent)
    , _fbo(fbo)
{
    ++aliveFramebuffers;
}

FramebufferObject::FramebufferObject(QObject* parent)
    : QObject(parent)
{
    create();
}

FramebufferObject::~FramebufferObject()
{
    destroy();
    --aliveFramebuffers;
}

bool FramebufferObject::create()
{
    VYX_CHECK_RETURN(0u == this->_fbo, false, "Framebuffer Object is not NULL on create");
    VYX_CHECK_RETURN(false == this->_fboBound, false, "Framebuffer Object is already bound on create");
    glGenFramebuffers(1, &_fbo);
    _managed = true;
    ++aliveFramebuffers;
    return true;
}

bool FramebufferObject::destroy()
{
    // A bound framebuffer keeps its name rather than vanish under its binding.
    VYX_CHECK_RETURN(false == this->_fboBound, false, "Framebuffer Object is already bound on destroy");
    deleteRenderbuffers();
    if (_fbo != 0 && _managed)
        glDeleteFramebuffers(1, &_fbo);
    _fbo = 0;
    _managed = false;
    return true;
}

void FramebufferObject::setFBO(unsigned int fbo)
{
    if (_fbo != fbo)
        deleteRenderbuffers();
    if (_managed && _fbo != 0 && _fbo != fbo)
        glDeleteFramebuffers(1, &_fbo);
    _fbo = fbo;
    _managed = false;
}

bool FramebufferObject::bind()
{
    VYX_CHECK_RETURN(0u != this->_fbo, false, "Framebuffer Object is NULL on bind");
    VYX_CHECK_RETURN(false == this->_fboBound, false, "Framebuffer Object is already bound on bind");
    glBindFramebuffer(GL_FRAMEBUFFER, _fbo);
    _fboBound = true;
    return true;
}

bool FramebufferObject::unbind()
{
    VYX_CHECK_RETURN(0u != this->_fbo, false, "Framebuffer Object is NULL on unbind");
    VYX_CHECK_RETURN(true == this->_fboBound, false, "Framebuffer Object is not bound on unbind");
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    _fboBound = false;
    return true;
}

bool FramebufferObject::isComplete()
{
    const bool bindHere = !_fboBound;
    if (bindHere && !bind())
        return false;
    const bool complete = glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
    if (bindHere)
        unbind();
    return complete;
}

bool FramebufferObject::checkAttachable()
{
    VYX_CHECK_RETURN(0u != this->_fbo, false, "Framebuffer Object is NULL on attach");
    VYX_CHECK_RETURN(true == this->_fboBound, false, "Framebuffer Object is not bound on attach");
    return true;
}

bool FramebufferObject::checkNewAttachment(Texture* texture, unsigned int attachmentPoint)
{
    if (!checkAttachable() || !checkPointFree(attachmentPoint))
        return false;
    VYX_CHECK_RETURN(nullptr != texture, false, "Texture is NULL on attach at %d", attachmentPoint);
    return true;
}

bool FramebufferObject::checkPointFree(unsigned int attachmentPoint)
{
    return VYX_CHECK(false == this->_attachments.contains(attachmentPoint),
                     "Framebuffer Object already has attachment at %d", attachmentPoint) &&
           VYX_CHECK(false == this->_renderbuffers.contains(attachmentPoint),
                     "Framebuffer Object already has attachment at %d", attachmentPoint);
}

void FramebufferObject::recordAttachment(Texture* texture, unsigned int attachmentPoint, int level)
{
    if (!_attachments.contains(attachmentPoint)) {
        if (isColourPoint(attachmentPoint))
            _drawBuffers.append(attachmentPoint);
        ++activeFboTextures;
    }
    _attachments.insert(attachmentPoint, texture);
    _attachmentLevels.insert(attachmentPoint, level);
    ++fboTexturesAttached;
}

bool FramebufferObject::attach(Texture* texture, unsigned int attachmentPoint, int level)
{
    if (!checkNewAttachment(texture, attachmentPoint))
        return false;
    const unsigned int target = texture->target();
    if (needsLayerAttach(target))
        return refuseLayeredTarget(target);
    glFramebufferTexture2D(GL_FRAMEBUFFER, attachmentPoint, target, texture->textureID(), level);
    recordAttachment(texture, attachmentPoint, level);
    return true;
}

bool FramebufferObject::attach3D(Texture* texture, unsigned int attachmentPoint, int level, int layer)
{
    if (!checkNewAttachment(texture, attachmentPoint))
        return false;
    if (texture->target() == GL_TEXTURE_3D)
        glFramebufferTexture3D(GL_FRAMEBUFFER, attachmentPoint, GL_TEXTURE_3D, texture->textureID(), level, layer);
    else
        glFramebufferTextureLayer(GL_FRAMEBUFFER, attachmentPoint, texture->textureID(), level, layer);
    recordAttachment(texture, attachmentPoint, level);
    return true;
}

bool FramebufferObject::attachLayers(Texture* texture, unsigned int attachmentPoint, int level)
{
    if (!checkNewAttachment(texture, attachmentPoint))
        return false;
    if (!hasLayers(texture->target())) {
        VYX_CHECK(false,
                  "Texture Target 0x%X is not supported by FramebufferObject::attachLayer() use FramebufferObject::attach()",
                  texture->target());
        return false;
    }
    glFramebufferTexture(GL_FRAMEBUFFER, attachmentPoint, texture->textureID(), level);
    recordAttachment(texture, attachmentPoint, level);
    return true;
}

bool FramebufferObject::attachUpdate(Texture* texture, unsigned int attachmentPoint, int level)
{
    if (!checkAttachable())
        return false;
    VYX_CHECK_RETURN(nullptr != texture, false, "Texture is NULL on attach at %d", attachmentPoint);
    const unsigned int target = texture->target();
    if (isProxyTarget(target))
        return refuseLayeredTarget(target);
    // Attaching over a point replaces what was there; no detach is needed in between.
    if (hasLayers(target))
        glFramebufferTexture(GL_FRAMEBUFFER, attachmentPoint, texture->textureID(), level);
    else
        glFramebufferTexture2D(GL_FRAMEBUFFER, attachmentPoint, target, texture->textureID(), level);
    recordAttachment(texture, attachmentPoint, level);
    return true;
}

Texture* FramebufferObject::detach(unsigned int attachmentPoint)
{
    VYX_CHECK_RETURN(0u != this->_fbo, nullptr, "Framebuffer Object is NULL on detach");
    VYX_CHECK_RETURN(true == this->_fboBound, nullptr, "Framebuffer Object is not bound on detach");
    if (_renderbuffers.contains(attachmentPoint)) {
        glFramebufferRenderbuffer(GL_FRAMEBUFFER, attachmentPoint, GL_RENDERBUFFER, 0);
        const GLuint name = _renderbuffers.take(attachmentPoint);
        glDeleteRenderbuffers(1, &name);
        _drawBuffers.removeAll(attachmentPoint);
        return nullptr;
    }
    VYX_CHECK_RETURN(true == this->_attachments.contains(attachmentPoint), nullptr,
                     "Framebuffer Object has nothing attached to attachment at %d", attachmentPoint);
    VYX_CHECK_RETURN(true == this->_attachmentLevels.contains(attachmentPoint), nullptr,
                     "Framebuffer Object has no level info for attachment at %d", attachmentPoint);
    glFramebufferTexture(GL_FRAMEBUFFER, attachmentPoint, 0, _attachmentLevels.value(attachmentPoint));
    Texture* texture = _attachments.take(attachmentPoint);
    _attachmentLevels.remove(attachmentPoint);
    _drawBuffers.removeAll(attachmentPoint);
    --activeFboTextures;
    return texture;
}

void FramebufferObject::detachAll()
{
    for (unsigned int attachmentPoint : attachmentPoints())
        detach(attachmentPoint);
}

Texture* FramebufferObject::detachAndRelease(unsigned int attachmentPoint)
{
    Texture* texture = detach(attachmentPoint);
    if (!texture)
        return nullptr;
    return releaseTextureToManager(texture);
}

void FramebufferObject::detachAndReleaseAll()
{
    for (unsigned int attachmentPoint : attachmentPoints())
        detachAndRelease(attachmentPoint);
}

Texture* FramebufferObject::createTexture2D(unsigned int attachmentPoint, unsigned int internalFormat,
                                            unsigned int format, unsigned int type, int width, int height)
{
    if (!checkAttachable() || !checkPointFree(attachmentPoint))
        return nullptr;
    std::unique_ptr<Texture> texture = newTextureWithStorage(GL_TEXTURE_2D, SamplerSettings::nearest(), [&] {
        glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(internalFormat), width, height, 0, format, type, nullptr);
        return true;
    });
    if (!texture || !attach(texture.get(), attachmentPoint, 0))
        return nullptr;
    return texture.release();
}

Texture* FramebufferObject::createTexture3D(unsigned int attachmentPoint, unsigned int internalFormat,
                                            unsigned int format, unsigned int type, int width, int height,
                                            int depth)
{
    if (!checkAttachable() || !checkPointFree(attachmentPoint))
        return nullptr;
    std::unique_ptr<Texture> texture = newTextureWithStorage(GL_TEXTURE_2D_ARRAY, SamplerSettings::nearest(), [&] {
        glTexImage3D(GL_TEXTURE_2D_ARRAY, 0, static_cast<GLint>(internalFormat), width, height, depth, 0, format,
                     type, nullptr);
        return true;
    });
    if (!texture || !attachLayers(texture.get(), attachmentPoint, 0))
        return nullptr;
    return texture.release();
}

bool FramebufferObject::createRenderbuffer(unsigned int attachmentPoint, unsigned int internalFormat, int width,
                                           int height, int samples)
{
    if (!checkAttachable() || !checkPointFree(attachmentPoint))
        return false;
    GLint maxSize = 0, maxSamples = 0;
    glGetIntegerv(GL_MAX_RENDERBUFFER_SIZE, &maxSize);
    glGetIntegerv(GL_MAX_SAMPLES, &maxSamples);
    VYX_CHECK_RETURN(width > 0 && height > 0 && width <= maxSize && height <= maxSize, false,
                     "Renderbuffer size %dx%d outside 1 to %d", width, height, int(maxSize));
    VYX_CHECK_RETURN(samples >= 0 && samples <= maxSamples, false, "Renderbuffer samples %d outside 0 to %d", samples,
                     int(maxSamples));
    GLuint name = 0;
    glGenRenderbuffers(1, &name);
    glBindRenderbuffer(GL_RENDERBUFFER, name);
    glRenderbufferStorageMultisample(GL_RENDERBUFFER, samples > 1 ? samples : 0, internalFormat, width, height);
    glBindRenderbuffer(GL_RENDERBUFFER, 0);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, attachmentPoint, GL_RENDERBUFFER, name);
    _renderbuffers.insert(attachmentPoint, name);
    if (isColourPoint(attachmentPoint))
        _drawBuffers.append(attachmentPoint);
    return true;
}

void FramebufferObject::deleteRenderbuffers()
{
    // Deleting a renderbuffer detaches it from the framebuffer, bound or not.
    for (auto it = _renderbuffers.constBegin(); it != _renderbuffers.constEnd(); ++it) {
        const GLuint name = it.value();
        glDeleteRenderbuffers(1, &name);
        _drawBuffers.removeAll(it.key());
    }
    _renderbuffers.clear();
}

bool FramebufferObject::setDrawBuffers()
{
    if (!checkAttachable())
        return false;
    glDrawBuffers(static_cast<GLsizei>(_drawBuffers.size()), _drawBuffers.constData());
    return true;
}

bool FramebufferObject::hasAttachment(unsigned int attachmentPoint) const
{
    return _attachments.contains(attachmentPoint) || _renderbuffers.contains(attachmentPoint);
}

Texture* FramebufferObject::attachment(unsigned int attachmentPoint) const
{
    VYX_CHECK_RETURN(this->_attachments.contains(attachmentPoint), nullptr,
                     "Framebuffer Object does not have an attachment at %d", attachmentPoint);
    return _attachments.value(attachmentPoint);
}

QList<unsigned int> FramebufferObject::attachmentPoints() const
{
    return _attachments.keys() + _renderbuffers.keys();
}

int FramebufferObject::NumAlive()
{
    return aliveFramebuffers;
}

int FramebufferObject::NumFBOTextures()
{
    return fboTexturesAttached;
}

int FramebufferObject::NumActiveFBOTextures()
{
    return activeFboTextures;
}

void FramebufferObject::ResetNumFBOTextures()
{
    fboTexturesAttached = 0;
}

} // namespace Tavren::Vyx
