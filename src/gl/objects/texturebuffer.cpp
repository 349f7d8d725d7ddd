#include "gl/objects/texturebuffer.h"

#include "core/logging.h"
#include "gl/glloader.h"

#include <algorithm>

namespace Tavren::Vyx {

namespace {
constexpr GLsizeiptr kTexelBytes = 4 * sizeof(float);
}

TextureBuffer::TextureBuffer(QObject* parent)
    : Texture(parent)
{
    setTarget(GL_TEXTURE_BUFFER);
}

TextureBuffer::~TextureBuffer()
{
    if (_buffer && glDeleteBuffers)
        glDeleteBuffers(1, &_buffer);
}

bool TextureBuffer::upload(const float* data, int texels)
{
    VYX_CHECK_RETURN(texels >= 0 && (texels == 0 || data), false, "A texture buffer upload needs %d texels of data", texels);
    GLint limit = 0;
    glGetIntegerv(GL_MAX_TEXTURE_BUFFER_SIZE, &limit);
    VYX_CHECK_RETURN(texels <= limit, false, "%d texels do not fit a texture buffer of at most %d", texels, limit);
    const bool grows = texels > _capacity || !_buffer;
    if (!_buffer)
        glGenBuffers(1, &_buffer);
    VYX_CHECK_RETURN(_buffer != 0, false, "Cannot make a texture buffer: is a GL context current?");
    glBindBuffer(GL_TEXTURE_BUFFER, _buffer);
    if (grows) {
        // An empty buffer cannot back a texture: keep at least one texel.
        _capacity = std::max(texels, 1);
        glBufferData(GL_TEXTURE_BUFFER, _capacity * kTexelBytes, nullptr, GL_DYNAMIC_DRAW);
    }
    if (texels > 0)
        glBufferSubData(GL_TEXTURE_BUFFER, 0, texels * kTexelBytes, data);
    glBindBuffer(GL_TEXTURE_BUFFER, 0);
    if (grows) {
        if (!bind())
            return false;
        glTexBuffer(GL_TEXTURE_BUFFER, GL_RGBA32F, _buffer);
        unbind();
    }
    _texels = texels;
    return VYX_CHECK(glGetError() == GL_NO_ERROR, "The texture buffer upload of %d texels failed", texels);
}

bool TextureBuffer::update(int first, const float* data, int texels)
{
    VYX_CHECK_RETURN(first >= 0 && texels >= 0 && first <= _texels - texels && (texels == 0 || data), false,
                     "Texels %d to %d are outside the texture buffer's %d", first, first + texels, _texels);
    if (texels == 0)
        return true;
    glBindBuffer(GL_TEXTURE_BUFFER, _buffer);
    glBufferSubData(GL_TEXTURE_BUFFER, first * kTexelBytes, texels * kTexelBytes, data);
    glBindBuffer(GL_TEXTURE_BUFFER, 0);
    return true;
}

} // namespace Tavren::Vyx
