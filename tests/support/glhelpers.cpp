#include "support/glhelpers.h"

#include "gl/drawing/opengldevicecontext.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/texture.h"
#include "gl/shaders/shaderprogram.h"

#include <QFile>

#include <gtest/gtest.h>

#include <algorithm>

#include "gl/glloader.h"

namespace VyxTest {

ColourTarget::ColourTarget(int width, int height, float clearValue, bool depthStencil)
    : _width(width)
    , _height(height)
{
    glGenFramebuffers(1, &_framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, _framebuffer);
    const GLenum formats[] = {GL_RGBA8, GL_DEPTH24_STENCIL8};
    const GLenum attachments[] = {GL_COLOR_ATTACHMENT0, GL_DEPTH_STENCIL_ATTACHMENT};
    for (int i = 0; i < (depthStencil ? 2 : 1); ++i) {
        glGenRenderbuffers(1, &_renderbuffers[i]);
        glBindRenderbuffer(GL_RENDERBUFFER, _renderbuffers[i]);
        glRenderbufferStorage(GL_RENDERBUFFER, formats[i], width, height);
        glFramebufferRenderbuffer(GL_FRAMEBUFFER, attachments[i], GL_RENDERBUFFER, _renderbuffers[i]);
    }
    glViewport(0, 0, width, height);
    clear(clearValue);
}

ColourTarget::~ColourTarget()
{
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteFramebuffers(1, &_framebuffer);
    glDeleteRenderbuffers(_renderbuffers[1] ? 2 : 1, _renderbuffers);
}

void ColourTarget::clear(float value) const
{
    glClearColor(value, value, value, value);
    glClearDepth(1.0);
    glClearStencil(0);
    glClear(GL_COLOR_BUFFER_BIT | (_renderbuffers[1] ? GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT : 0));
}

QColor ColourTarget::pixel(int x, int y) const
{
    unsigned char rgba[4] = {};
    glReadPixels(x, y, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, rgba);
    return QColor(rgba[0], rgba[1], rgba[2], rgba[3]);
}

int ColourTarget::stencil(int x, int y) const
{
    unsigned char value = 0;
    glReadPixels(x, y, 1, 1, GL_STENCIL_INDEX, GL_UNSIGNED_BYTE, &value);
    return value;
}

std::vector<unsigned char> ColourTarget::pixels() const
{
    std::vector<unsigned char> rgba(size_t(_width) * _height * 4);
    glReadPixels(0, 0, _width, _height, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
    return rgba;
}

std::vector<int> ColourTarget::channel(int index) const
{
    const std::vector<unsigned char> rgba = pixels();
    std::vector<int> values;
    for (size_t i = size_t(index); i < rgba.size(); i += 4)
        values.push_back(rgba[i]);
    return values;
}

int ColourTarget::count(const std::vector<int>& rgba) const
{
    const std::vector<unsigned char> all = pixels();
    int matches = 0;
    for (size_t i = 0; i < all.size(); i += 4)
        matches += std::equal(rgba.begin(), rgba.end(), all.begin() + i);
    return matches;
}

int glInteger(unsigned int query)
{
    GLint value = -1;
    glGetIntegerv(query, &value);
    return value;
}

std::unique_ptr<Tavren::Vyx::Texture> texture2D(int width, int height, unsigned int internalFormat, unsigned int type,
                                                const void* texels)
{
    auto texture = std::make_unique<Tavren::Vyx::Texture>();
    texture->create2D(GL_TEXTURE_2D, internalFormat, width, height);
    if (texels) {
        texture->bind();
        glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_RGBA, type, texels);
        glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
        texture->unbind();
    }
    return texture;
}

QSharedPointer<Tavren::Vyx::BufferObject> newBuffer(unsigned int target, const void* values, int count, size_t valueSize)
{
    auto buffer = Tavren::Vyx::OpenGLDeviceContext::current()->newBuffer();
    buffer->setTarget(target);
    if (values) {
        buffer->bind();
        EXPECT_TRUE(buffer->uploadArbitraryData(values, count, GL_STATIC_DRAW, valueSize));
        buffer->unbind();
    }
    return buffer;
}

int levelParameter(Tavren::Vyx::Texture* texture, unsigned int parameter, unsigned int face, int level)
{
    GLint value = -1;
    texture->bind();
    glGetTexLevelParameteriv(face ? face : texture->target(), level, parameter, &value);
    texture->unbind();
    return value;
}

void readTexImage(Tavren::Vyx::Texture* texture, unsigned int format, unsigned int type, void* out, unsigned int face,
                  int level)
{
    texture->bind();
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glGetTexImage(face ? face : texture->target(), level, format, type, out);
    texture->unbind();
}

std::unique_ptr<Tavren::Vyx::ShaderProgram> linkedProgram(const QString& vertex, const QString& fragment)
{
    auto program = std::make_unique<Tavren::Vyx::ShaderProgram>();
    program->addShader(GL_VERTEX_SHADER, vertex);
    program->addShader(GL_FRAGMENT_SHADER, fragment);
    EXPECT_TRUE(program->link()) << program->log().toStdString();
    return program;
}

QString glslResource(const QString& name)
{
    QFile file(":/GLSL/src/" + name);
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()) : QString();
}

} // namespace VyxTest
