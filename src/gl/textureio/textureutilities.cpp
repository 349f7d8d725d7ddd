#include "gl/textureio/textureutilities.h"

#include "core/logging.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/internal/passdevicecontext.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/bindable.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glutilities.h"
#include "gl/shaders/shaderprogram.h"

#include <memory>

namespace Tavren::Vyx {

namespace {

ShaderProgram* makeTextureShader(std::unique_ptr<ShaderProgram> program, bool withLog)
{
    program->setFragDataLocations({QStringLiteral("out_FragColor")});
    const char* failedStep = !program->compile() ? "compile" : !program->link() ? "link" : nullptr;
    if (!failedStep)
        return program.release();
    if (withLog)
        VYX_WARNING("shader program failed to %s:\n%s", failedStep, qPrintable(program->log()));
    else
        VYX_WARNING("shader program failed to %s", failedStep);
    return nullptr;
}

// ProcessTexture, telling whether the destination really received the pass.
bool runTexturePass(ShaderProgram* shader, const QHash<QString, QVariant>& uniforms, Texture* source,
                    Texture* destination)
{
    VYX_CHECK_RETURN(shader && source && destination, false,
                     "ProcessTexture needs a shader, a source and a destination");
    const QSharedPointer<DrawBuffers> quad = passDeviceContext()->fullscreenQuad();
    VYX_CHECK_RETURN(quad && quad->VAO(), false, "No full-screen quad to draw");
    const QSharedPointer<VertexArrayObject> vertexArray = quad->VAO();
    VYX_CHECK_GL_ERROR(); // errors of earlier work are not this pass's

    if (!shader->bind())
        return false;
    if (!source->bind()) {
        shader->unbind();
        return false;
    }
    GLint width = 0, height = 0;
    glGetTexLevelParameteriv(source->target(), 0, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(source->target(), 0, GL_TEXTURE_HEIGHT, &height);

    bool drawn = false;
    {
        FramebufferObject fbo;
        const bool bound = fbo.bind();
        if (bound && fbo.attach(destination, GL_COLOR_ATTACHMENT0, 0)) {
            fbo.setDrawBuffers();
            if (VYX_CHECK(fbo.isComplete(), "Framebuffer for the texture pass is incomplete") && vertexArray->bind()) {
                drawn = vertexArray->enableShaderProgramArrays(shader);
                for (auto it = uniforms.constBegin(); it != uniforms.constEnd(); ++it)
                    shader->setUniform(it.key(), it.value());
                shader->setUniform(QStringLiteral("u_Src"), QVariant(source->unit()));

                // sRGB destinations are written encoded, so a pass over an sRGB texture round-trips.
                AutoEnabler srgbWrites(GL_FRAMEBUFFER_SRGB);
                glDisable(GL_BLEND);
                glDisable(GL_DEPTH_TEST);
                glDepthMask(GL_FALSE);
                glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
                glClear(GL_COLOR_BUFFER_BIT);
                glViewport(0, 0, width, height);
                drawn = drawn && quad->draw(shader);
                glDepthMask(GL_TRUE);
                glEnable(GL_DEPTH_TEST);
                vertexArray->unbind();
            }
            fbo.detach(GL_COLOR_ATTACHMENT0);
        }
        if (bound)
            fbo.unbind();
    }

    if (destination->bind()) {
        glGenerateMipmap(destination->target());
        destination->unbind();
    }
    source->unbind();
    shader->unbind();
    return !hasGLError(__FILE__, __LINE__) && drawn;
}

// Runs a one-texture pass into a fresh copy and, when it worked, puts the copy in the caller's
// pointer; on any failure the caller keeps the texture it had.
bool reworkTexture(Texture*& texture, const char* fragmentFile, const QHash<QString, QVariant>& uniforms)
{
    VYX_CHECK_RETURN(GL_TEXTURE_2D == texture->target(), false,
                     "Only 2D textures can be reworked (target 0x%X)", texture->target());
    const std::unique_ptr<ShaderProgram> shader(MakeTextureShaderFromFile(QString::fromLatin1(fragmentFile)));
    if (!shader)
        return false;
    std::unique_ptr<Texture> copy(WritableCopyOfTexture(texture, 0, 0));
    if (!copy || !runTexturePass(shader.get(), uniforms, texture, copy.get()))
        return false;
    delete texture;
    texture = copy.release();
    return true;
}

} // namespace

Texture* SolidColorTexture(float r, float g, float b, float a)
{
    const GLubyte texel[4] = {GLubyte(r * 255.0f), GLubyte(g * 255.0f), GLubyte(b * 255.0f), GLubyte(a * 255.0f)};
    const SamplerSettings sampler = {GL_NEAREST, GL_NEAREST, GL_REPEAT, GL_REPEAT, 0, 0};
    const auto upload = [&] {
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 1);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, 1, 1, 0, GL_RGBA, GL_UNSIGNED_BYTE, texel);
        return true;
    };
    return newTextureWithStorage(GL_TEXTURE_2D, sampler, upload).release();
}

Texture* WritableCopyOfTexture(Texture* source, unsigned int internalFormat, int level)
{
    VYX_CHECK_RETURN(nullptr != source, nullptr, "Source texture is NULL");
    const GLenum target = source->target();
    VYX_CHECK_RETURN(GL_TEXTURE_2D_MULTISAMPLE != target && GL_TEXTURE_2D_MULTISAMPLE_ARRAY != target, nullptr,
                     "Multisample textures (target 0x%X) cannot be copied", target);
    if (!source->bind())
        return nullptr;
    // Level queries take one face of a cube map.
    const GLenum levelTarget = GL_TEXTURE_CUBE_MAP == target ? GL_TEXTURE_CUBE_MAP_POSITIVE_X : target;
    GLint width = 0, height = 0, depth = 0;
    glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_HEIGHT, &height);
    glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_DEPTH, &depth);
    if (0 == internalFormat) {
        GLint sourceFormat = 0, compressed = 0;
        glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_INTERNAL_FORMAT, &sourceFormat);
        glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_COMPRESSED, &compressed);
        internalFormat = compressed ? GL_RGBA : static_cast<unsigned int>(sourceFormat);
    }
    const SamplerSettings sampler = SamplerSettings::of(target);
    source->unbind();

    VYX_CHECK_RETURN(width > 0 && height > 0, nullptr, "Texture has no level %d to copy", level);
    const GLenum format = allocationFormatFromInternalFormat(internalFormat);
    const GLenum type = allocationTypeFromInternalFormat(internalFormat);
    if (0 == format || 0 == type)
        return nullptr;

    const auto glFormat = static_cast<GLint>(internalFormat);
    const auto allocate = [&] {
        switch (target) {
        case GL_TEXTURE_1D:
            glTexImage1D(target, level, glFormat, width, 0, format, type, nullptr);
            break;
        case GL_TEXTURE_CUBE_MAP:
            for (GLenum face = 0; face < 6; ++face)
                glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, level, glFormat, width, height, 0, format, type,
                             nullptr);
            break;
        case GL_TEXTURE_3D:
        case GL_TEXTURE_2D_ARRAY:
        case GL_TEXTURE_CUBE_MAP_ARRAY:
            glTexImage3D(target, level, glFormat, width, height, depth, 0, format, type, nullptr);
            break;
        default:
            glTexImage2D(target, level, glFormat, width, height, 0, format, type, nullptr);
            break;
        }
        return true;
    };
    return newTextureWithStorage(target, sampler, allocate).release();
}

ShaderProgram* MakeTextureShaderFromString(const QString& fragmentSource)
{
    auto program = std::make_unique<ShaderProgram>();
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("passthroughVS.glslc"));
    program->addShader(GL_FRAGMENT_SHADER, fragmentSource);
    return makeTextureShader(std::move(program), true);
}

ShaderProgram* MakeTextureShaderFromFile(const QString& fragmentFile)
{
    auto program = std::make_unique<ShaderProgram>();
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("passthroughVS.glslc"));
    program->addShaderFromFile(GL_FRAGMENT_SHADER, fragmentFile);
    return makeTextureShader(std::move(program), false);
}

void ProcessTexture(ShaderProgram* shader, const QHash<QString, QVariant>& uniforms, Texture* source,
                    Texture* destination)
{
    runTexturePass(shader, uniforms, source, destination);
}

bool FlipY(Texture*& texture)
{
    if (!texture)
        return false;
    return reworkTexture(texture, "TextureUtilities_FlipY.frag", {});
}

bool RemapColorRange(Texture*& texture, float low, float high)
{
    if (!texture || (low == 0.0f && high == 1.0f))
        return false;
    const QHash<QString, QVariant> uniforms = {{QStringLiteral("u_lowValue"), QVariant(low)},
                                               {QStringLiteral("u_highValue"), QVariant(high)}};
    return reworkTexture(texture, "TextureUtilities_RemapColorRange.frag", uniforms);
}

} // namespace Tavren::Vyx
