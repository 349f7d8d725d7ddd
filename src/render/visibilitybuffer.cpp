#include "render/visibilitybuffer.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/shaders/shaderprogram.h"

#include <QVariant>

#include <vector>

namespace Tavren::Vyx {

namespace {

constexpr GLuint kHeadsImageUnit = 0;
constexpr GLuint kNodesImageUnit = 1;
constexpr GLuint kCounterBinding = 0; // fixed in the GLSL layout

void writeCounter(GLuint buffer, GLuint value)
{
    glBindBuffer(GL_ATOMIC_COUNTER_BUFFER, buffer);
    glBufferSubData(GL_ATOMIC_COUNTER_BUFFER, 0, sizeof(value), &value);
    glBindBuffer(GL_ATOMIC_COUNTER_BUFFER, 0);
}

} // namespace

VisibilityBuffer::VisibilityBuffer() = default;

VisibilityBuffer::~VisibilityBuffer()
{
    _nodes.reset();
    const GLuint buffers[2] = {_nodeBuffer, _counterBuffer};
    if (_nodeBuffer || _counterBuffer)
        glDeleteBuffers(2, buffers);
}

bool VisibilityBuffer::isSupported()
{
    return hasGLCapability(GLCapability::ShaderImageLoadStore) && hasGLCapability(GLCapability::ShaderAtomicCounters);
}

bool VisibilityBuffer::checkSupported() const
{
    return VYX_CHECK(isSupported(),
                     "The visibility buffer needs image load/store and atomic counters (OpenGL 4.2, or "
                     "GL_ARB_shader_image_load_store and GL_ARB_shader_atomic_counters); this context has neither");
}

bool VisibilityBuffer::create(int width, int height, int maxFragments)
{
    if (!checkSupported())
        return false;
    VYX_CHECK_RETURN(width > 0 && height > 0 && maxFragments > 0 && width <= 16384 && height <= 16384 &&
                         maxFragments <= (1 << 26),
                     false, "Visibility buffer size %dx%d with %d fragments is out of range", width, height,
                     maxFragments);
    if (!_counterBuffer) {
        GLuint buffers[2] = {};
        glGenBuffers(2, buffers);
        _nodeBuffer = buffers[0];
        _counterBuffer = buffers[1];
        glBindBuffer(GL_ATOMIC_COUNTER_BUFFER, _counterBuffer);
        glBufferData(GL_ATOMIC_COUNTER_BUFFER, sizeof(GLuint), nullptr, GL_DYNAMIC_DRAW);
        glBindBuffer(GL_ATOMIC_COUNTER_BUFFER, 0);
    }
    glBindBuffer(GL_TEXTURE_BUFFER, _nodeBuffer);
    glBufferData(GL_TEXTURE_BUFFER, GLsizeiptr(maxFragments) * 16, nullptr, GL_DYNAMIC_COPY);
    glBindBuffer(GL_TEXTURE_BUFFER, 0);
    _nodes = std::make_unique<Texture>();
    _nodes->setTarget(GL_TEXTURE_BUFFER);
    if (!_nodes->bind())
        return false;
    glTexBuffer(GL_TEXTURE_BUFFER, GL_RGBA32UI, _nodeBuffer);
    _nodes->unbind();
    _heads = std::make_unique<Texture>();
    _heads->create2D(GL_TEXTURE_2D, GL_R32UI, width, height);
    _width = width;
    _height = height;
    _maxFragments = maxFragments;
    return clear();
}

bool VisibilityBuffer::addShaders(ShaderProgram* program) const
{
    VYX_CHECK_RETURN(program, false, "No program to add the visibility buffer to");
    if (!checkSupported())
        return false;
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("VisibilityBuffer.glslc"));
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("VyxUtilities.glslc"));
    return true;
}

bool VisibilityBuffer::clear()
{
    VYX_CHECK_RETURN(_heads, false, "The visibility buffer was not created");
    if (!_heads->bind())
        return false;
    const std::vector<GLuint> zeros(size_t(_width) * size_t(_height), 0u);
    {
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 4);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, _width, _height, GL_RED_INTEGER, GL_UNSIGNED_INT, zeros.data());
    }
    _heads->unbind();
    writeCounter(_counterBuffer, 0u);
    return true;
}

bool VisibilityBuffer::bind(ShaderProgram* program)
{
    VYX_CHECK_RETURN(_heads && program, false, "The visibility buffer needs to be created and given a program");
    glBindImageTexture(kHeadsImageUnit, _heads->textureID(), 0, GL_FALSE, 0, GL_READ_WRITE, GL_R32UI);
    glBindImageTexture(kNodesImageUnit, _nodes->textureID(), 0, GL_FALSE, 0, GL_READ_WRITE, GL_RGBA32UI);
    glBindBufferBase(GL_ATOMIC_COUNTER_BUFFER, kCounterBinding, _counterBuffer);
    // Uniforms the program does not use are fine: a query program needs no counter.
    program->setUniform(QStringLiteral("u_VisibilityHeads"), QVariant(int(kHeadsImageUnit)));
    program->setUniform(QStringLiteral("u_VisibilityNodes"), QVariant(int(kNodesImageUnit)));
    program->setUniform(QStringLiteral("u_VisibilityNodeCount"), QVariant(unsigned(_maxFragments)));
    const int sizeLocation = program->getUniformLocation(QStringLiteral("u_VisibilitySize"));
    if (sizeLocation >= 0)
        glUniform2i(sizeLocation, _width, _height);
    return true;
}

void VisibilityBuffer::memoryBarrier() const
{
    glMemoryBarrier(GL_SHADER_IMAGE_ACCESS_BARRIER_BIT | GL_ATOMIC_COUNTER_BARRIER_BIT |
                    GL_TEXTURE_FETCH_BARRIER_BIT);
}

unsigned int VisibilityBuffer::fragmentCount() const
{
    GLuint count = 0;
    if (!_counterBuffer)
        return 0;
    glBindBuffer(GL_ATOMIC_COUNTER_BUFFER, _counterBuffer);
    glGetBufferSubData(GL_ATOMIC_COUNTER_BUFFER, 0, sizeof(count), &count);
    glBindBuffer(GL_ATOMIC_COUNTER_BUFFER, 0);
    return count;
}

} // namespace Tavren::Vyx
