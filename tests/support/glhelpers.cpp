#include "support/glhelpers.h"

#include "gl/objects/texture.h"
#include "gl/shaders/shaderprogram.h"

#include <QFile>

#include <gtest/gtest.h>

#include <algorithm>

#include "gl/glloader.h"

namespace VyxTest {

ColourTarget::ColourTarget(int width, int height, float clearValue)
    : _width(width)
    , _height(height)
{
    glGenRenderbuffers(1, &_renderbuffer);
    glBindRenderbuffer(GL_RENDERBUFFER, _renderbuffer);
    glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, width, height);
    glGenFramebuffers(1, &_framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, _framebuffer);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, _renderbuffer);
    glViewport(0, 0, width, height);
    clear(clearValue);
}

ColourTarget::~ColourTarget()
{
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteFramebuffers(1, &_framebuffer);
    glDeleteRenderbuffers(1, &_renderbuffer);
}

void ColourTarget::clear(float value) const
{
    glClearColor(value, value, value, value);
    glClear(GL_COLOR_BUFFER_BIT);
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

int levelParameter(Tavren::Vyx::Texture* texture, unsigned int parameter, unsigned int face, int level)
{
    GLint value = -1;
    texture->bind();
    glGetTexLevelParameteriv(face ? face : texture->target(), level, parameter, &value);
    texture->unbind();
    return value;
}

void readTexImage(Tavren::Vyx::Texture* texture, unsigned int format, unsigned int type, void* out, unsigned int face)
{
    texture->bind();
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glGetTexImage(face ? face : texture->target(), 0, format, type, out);
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
