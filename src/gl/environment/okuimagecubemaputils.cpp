#include "gl/environment/okuimagecubemaputils.h"

#include "core/logging.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/internal/passdevicecontext.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/environment/okurendercubemap.h"
#include "gl/glloader.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/bindable.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/shaders/shaderprogram.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <cmath>
#include <memory>
#include <vector>

namespace Tavren::Vyx::OkuImageCubemapUtils {

namespace {

const char* const kTypeNames[] = {QT_TRANSLATE_NOOP("OkuImageCubemapUtils", "None"),
                                  QT_TRANSLATE_NOOP("OkuImageCubemapUtils", "Cubemap"),
                                  QT_TRANSLATE_NOOP("OkuImageCubemapUtils", "Sphere"),
                                  QT_TRANSLATE_NOOP("OkuImageCubemapUtils", "LatLong"),
                                  QT_TRANSLATE_NOOP("OkuImageCubemapUtils", "Linear"),
                                  QT_TRANSLATE_NOOP("OkuImageCubemapUtils", "Cross")};

const int kMaxCrossFaceSize = 512;

struct LevelInfo
{
    int width = 0;
    int height = 0;
    bool float32 = false;
};

// Level-0 size of a source of the expected target, with a message when it is not usable.
bool sourceLevel(Texture* source, GLenum expectedTarget, LevelInfo& info)
{
    VYX_CHECK_RETURN(nullptr != source, false, "Source texture is NULL");
    VYX_CHECK_RETURN(source->target() == expectedTarget, false, "Source texture of type 0x%X is not of type 0x%X",
                     source->target(), expectedTarget);
    AutoBinder binder(source);
    VYX_CHECK_RETURN(binder.isBound(), false, "Source texture could not be bound");
    const GLenum level0 = expectedTarget == GL_TEXTURE_CUBE_MAP ? GL_TEXTURE_CUBE_MAP_POSITIVE_X : expectedTarget;
    GLint type = 0, bits = 0;
    glGetTexLevelParameteriv(level0, 0, GL_TEXTURE_WIDTH, &info.width);
    glGetTexLevelParameteriv(level0, 0, GL_TEXTURE_HEIGHT, &info.height);
    glGetTexLevelParameteriv(level0, 0, GL_TEXTURE_RED_TYPE, &type);
    glGetTexLevelParameteriv(level0, 0, GL_TEXTURE_RED_SIZE, &bits);
    info.float32 = type == GL_FLOAT && bits == 32;
    return VYX_CHECK(info.width > 0 && info.height > 0, "Source texture has no level 0 image (%d x %d)", info.width,
                     info.height);
}

bool cubeMapArraysSupported()
{
    return hasGLCapability(GLCapability::TextureCubeMapArray);
}

// An empty size x size cube map (array) with the conversions' sampling parameters; null, with
// a message, when the size or format cannot be had.
std::unique_ptr<Texture> newCubemap(unsigned int size, GLenum internalFormat, int layers, int levels = 1)
{
    GLint maxSize = 0;
    glGetIntegerv(GL_MAX_CUBE_MAP_TEXTURE_SIZE, &maxSize);
    VYX_CHECK_RETURN(size >= 1 && size <= unsigned(maxSize), nullptr, "Cube map size %u is not within 1 ... %d", size,
                     maxSize);
    const GLenum target = layers > 1 ? GL_TEXTURE_CUBE_MAP_ARRAY : GL_TEXTURE_CUBE_MAP;
    VYX_CHECK_RETURN(layers == 1 || cubeMapArraysSupported(), nullptr,
                     "%d layers need cube map arrays, which this context does not have", layers);
    auto cubemap = std::make_unique<Texture>();
    cubemap->setTarget(target);
    AutoBinder binder(cubemap.get());
    VYX_CHECK_RETURN(binder.isBound(), nullptr, "Cube map could not be bound");
    VYX_CHECK_GL_ERROR(); // earlier errors are not this allocation's
    glTexParameteri(target, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(target, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glTexParameteri(target, GL_TEXTURE_WRAP_R, GL_CLAMP_TO_EDGE);
    glTexParameteri(target, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(target, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
    if (levels > 1)
        glTexParameteri(target, GL_TEXTURE_MAX_LEVEL, levels - 1);
    for (int level = 0; level < levels; ++level) {
        const auto levelSize = GLsizei(qMax(1u, size >> level));
        if (layers > 1) {
            glTexImage3D(target, level, GLint(internalFormat), levelSize, levelSize, layers * 6, 0, GL_RGBA, GL_FLOAT,
                         nullptr);
        } else {
            for (GLenum face = 0; face < 6; ++face)
                glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, level, GLint(internalFormat), levelSize, levelSize,
                             0, GL_RGBA, GL_FLOAT, nullptr);
        }
    }
    VYX_CHECK_RETURN(glGetError() == GL_NO_ERROR, nullptr, "Cube map of size %u and %d layers could not be allocated",
                     size, layers);
    return cubemap;
}

// Renders level 0 and finishes the result as every conversion does.
Texture* renderCubemap(OkuRenderCubemapBase& renderer, std::unique_ptr<Texture> cubemap, int layers)
{
    if (!cubemap || !renderer.render(cubemap.get(), 0, 0, layers))
        return nullptr;
    {
        AutoBinder binder(cubemap.get());
        glGenerateMipmap(cubemap->target());
    }
    glFlush();
    return cubemap.release();
}

// The amount of each layer made from a ramp of levelCount, starting at firstLevel; empty when
// the arguments make no ramp.
QVector<float> rampAmounts(int levelCount, int firstLevel, float power)
{
    QVector<float> amounts;
    VYX_CHECK_RETURN(levelCount >= 1 && firstLevel >= 0 && firstLevel < levelCount, amounts,
                     "Levels %d ... %d are not a range of blur levels", firstLevel, levelCount - 1);
    for (int level = firstLevel; level < levelCount; ++level)
        amounts.append(levelCount > 1 ? std::pow(float(level) / float(levelCount - 1), power) : 0.0f);
    return amounts;
}

Texture* createBatched(Texture* cubemap, unsigned int size, const QVector<float>& amounts, bool nDotL)
{
    LevelInfo info;
    if (amounts.isEmpty() || !sourceLevel(cubemap, GL_TEXTURE_CUBE_MAP, info))
        return nullptr;
    std::unique_ptr<OkuRenderCubemapBase> renderer;
    if (nDotL)
        renderer = std::make_unique<OkuRenderCubemap_NDotL>(cubemap, amounts);
    else
        renderer = std::make_unique<OkuRenderCubemap_Blur>(cubemap, amounts);
    const int layers = int(amounts.size());
    return renderCubemap(*renderer, newCubemap(size, info.float32 ? GL_RGBA32F : GL_RGBA16F, layers), layers);
}

// The view direction of the centre of texel (x, y) of a face of the given size.
QVector3D texelDirection(int face, int x, int y, int size)
{
    const float sc = (2.0f * float(x) + 1.0f) / float(size) - 1.0f;
    const float tc = (2.0f * float(y) + 1.0f) / float(size) - 1.0f;
    switch (face) {
    case 0: return {1.0f, -tc, -sc};
    case 1: return {-1.0f, -tc, sc};
    case 2: return {sc, 1.0f, tc};
    case 3: return {sc, -1.0f, -tc};
    case 4: return {sc, -tc, 1.0f};
    default: return {-sc, -tc, -1.0f};
    }
}

void shBasis(const QVector3D& d, float out[9])
{
    const float x = d.x(), y = d.y(), z = d.z();
    out[0] = 0.282095f;
    out[1] = 0.488603f * y;
    out[2] = 0.488603f * z;
    out[3] = 0.488603f * x;
    out[4] = 1.092548f * x * y;
    out[5] = 1.092548f * y * z;
    out[6] = 0.315392f * (3.0f * z * z - 1.0f);
    out[7] = 1.092548f * x * z;
    out[8] = 0.546274f * (x * x - y * y);
}

} // namespace

QString typeAsString(int type)
{
    if (type < 0 || type > SourceCross)
        return QCoreApplication::translate("OkuImageCubemapUtils", "Unknown");
    return QCoreApplication::translate("OkuImageCubemapUtils", kTypeNames[type]);
}

OkuImageCubemapSourceType typeFromString(const QString& name)
{
    for (int type = SourceNone; type <= SourceCross; ++type) {
        if (name == typeAsString(type))
            return OkuImageCubemapSourceType(type);
    }
    return SourceNone;
}

QList<OkuImageCubemapSourceType> supportedTypes()
{
    return {SourceSphere, SourceLatLong, SourceCross};
}

bool canFileSupport3DCubemap(const QString& fileName)
{
    return QFileInfo(fileName).suffix() == QLatin1String("dds");
}

Texture* createGLCubemapFromTexture(Texture* source, OkuImageCubemapSourceType type, unsigned int size,
                                    OkuImageCubemapColorSpace colorSpace)
{
    VYX_CHECK_RETURN(type == SourceCross || type == SourceLatLong || type == SourceSphere, nullptr,
                     "Cube maps are not made from sources of type %s", qPrintable(typeAsString(type)));
    LevelInfo info;
    if (!sourceLevel(source, GL_TEXTURE_2D, info))
        return nullptr;
    std::unique_ptr<OkuRenderCubemapColorSource> renderer;
    if (type == SourceCross) {
        const int shorter = qMin(info.width, info.height), longer = qMax(info.width, info.height);
        if (shorter < 1 || shorter == longer) {
            VYX_CRITICAL("[ !! ] Texture(%d,%d) not a 4:3 or 3:4 image. Cannot load cubemap.", info.width, info.height);
            return nullptr;
        }
        size = unsigned(qMin(longer / 4, kMaxCrossFaceSize));
        renderer = std::make_unique<OkuRenderCubemap_Cross>(source, info.width < info.height);
    } else if (type == SourceLatLong) {
        renderer = std::make_unique<OkuRenderCubemap_LatLongSphere>(source);
    } else {
        renderer = std::make_unique<OkuRenderCubemap_Sphere>(source);
    }
    renderer->setColorSpace(colorSpace);
    return renderCubemap(*renderer, newCubemap(size, info.float32 ? GL_RGBA32F : GL_RGBA16F, 1), 1);
}

Texture* createGLCubemapBlurFromGLCubemap(Texture* cubemap, unsigned int size, int levelCount, int firstLevel)
{
    Texture* blurred = createBatched(cubemap, size, rampAmounts(levelCount, firstLevel, 1.0f), false);
    if (!blurred)
        VYX_CRITICAL("[ !! ] Unable to create cubemap blur from cubemap.");
    return blurred;
}

Texture* createGLCubemapNDotLFromGLCubemap(Texture* cubemap, unsigned int size, int levelCount, int firstLevel,
                                           float levelPow)
{
    Texture* convolved = nullptr;
    if (VYX_CHECK(levelPow > 0.0f, "Level power %g is not positive", double(levelPow)))
        convolved = createBatched(cubemap, size, rampAmounts(levelCount, firstLevel, 1.0f / levelPow), true);
    if (!convolved)
        VYX_CRITICAL("[ !! ] Unable to create cubemap NDotL from cubemap.");
    return convolved;
}

Texture* createPrefilteredEnvMapFromGLCubemap(Texture* cubemap, unsigned int size, int levels, int samples)
{
    LevelInfo info;
    if (!sourceLevel(cubemap, GL_TEXTURE_CUBE_MAP, info))
        return nullptr;
    VYX_CHECK_RETURN(levels >= 1 && size >> (levels - 1) >= 1, nullptr, "%d levels do not fit a cube map of size %u",
                     levels, size);
    VYX_CHECK_RETURN(samples >= 1, nullptr, "%d samples per texel are too few", samples);
    std::unique_ptr<Texture> result = newCubemap(size, info.float32 ? GL_RGBA32F : GL_RGBA16F, 1, levels);
    if (!result)
        return nullptr;
    OkuRenderCubemap_Prefiltered renderer(cubemap, samples);
    for (int level = 0; level < levels; ++level) {
        renderer.setRoughness(levels > 1 ? float(level) / float(levels - 1) : 0.0f);
        if (!renderer.render(result.get(), level))
            return nullptr;
    }
    glFlush();
    return result.release();
}

Texture* createPreintegratedBRDFTable(unsigned int size, int samples)
{
    VYX_CHECK_RETURN(size >= 1 && size <= 4096, nullptr, "BRDF table size %u is not within 1 ... 4096", size);
    VYX_CHECK_RETURN(samples >= 1, nullptr, "%d samples per texel are too few", samples);
    const QSharedPointer<OpenGLDeviceContext> device = passDeviceContext();
    ShaderProgram program;
    program.addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("preintegratedBRDFTableVS.glslc"));
    program.addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("preintegratedBRDFTableFS.glslc"));
    program.addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("ImportanceSample.glslc"));
    program.setFragDataLocations({QStringLiteral("out_FragColor")});
    if (!program.compile() || !program.link()) {
        VYX_WARNING("BRDF table program failed to build:\n%s", qPrintable(program.log()));
        return nullptr;
    }
    const QSharedPointer<DrawBuffers> quad = device->fullscreenQuad();
    FramebufferObject fbo;
    fbo.bind();
    std::unique_ptr<Texture> table(fbo.createTexture2D(GL_COLOR_ATTACHMENT0, GL_RG16F, GL_RG, GL_HALF_FLOAT,
                                                       int(size), int(size)));
    bool ok = table && VYX_CHECK(fbo.isComplete(), "BRDF table of size %u cannot be rendered into", size);
    if (ok && program.bind()) {
        AutoDisabler depthTest(GL_DEPTH_TEST);
        AutoDisabler blend(GL_BLEND);
        GLint viewport[4] = {};
        glGetIntegerv(GL_VIEWPORT, viewport);
        glViewport(0, 0, GLsizei(size), GLsizei(size));
        fbo.setDrawBuffers();
        program.setUniform(QStringLiteral("u_SampleCount"), QVariant(samples));
        quad->VAO()->bind();
        quad->VAO()->enableShaderProgramArrays(&program);
        quad->draw(&program);
        quad->VAO()->unbind();
        glViewport(viewport[0], viewport[1], viewport[2], viewport[3]);
        program.unbind();
    }
    if (table)
        fbo.detachAll();
    fbo.unbind();
    if (!ok)
        return nullptr;
    {
        AutoBinder binder(table.get());
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    }
    glFlush();
    return table.release();
}

QVector3D IrradianceSH::evaluate(const QVector3D& direction) const
{
    float basis[9];
    shBasis(direction.normalized(), basis);
    QVector3D sum;
    for (int i = 0; i < 9; ++i)
        sum += coefficients[i] * basis[i];
    return sum;
}

IrradianceSH computeIrradianceSHFromGLCubemap(Texture* cubemap, int maxFaceSize)
{
    IrradianceSH sh;
    LevelInfo info;
    if (!sourceLevel(cubemap, GL_TEXTURE_CUBE_MAP, info))
        return sh;
    AutoBinder binder(cubemap);
    GLint baseLevel = 0, maxLevel = 0;
    glGetTexParameteriv(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_BASE_LEVEL, &baseLevel);
    glGetTexParameteriv(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_MAX_LEVEL, &maxLevel);
    int level = baseLevel, size = info.width;
    for (GLint width = 0; size > maxFaceSize && level < maxLevel; size = width) {
        glGetTexLevelParameteriv(GL_TEXTURE_CUBE_MAP_POSITIVE_X, level + 1, GL_TEXTURE_WIDTH, &width);
        if (width <= 0)
            break;
        ++level;
    }
    // The read-back's alignment holds to the end: only arithmetic follows the loop.
    PixelStoreGuard alignment(GL_PACK_ALIGNMENT, 4);
    std::vector<float> texels(size_t(size) * size_t(size) * 4);
    double sums[9][3] = {};
    double totalWeight = 0.0;
    // Three bands are smooth enough that texel centres stand for their whole solid angle.
    for (int face = 0; face < 6; ++face) {
        glGetTexImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + GLenum(face), level, GL_RGBA, GL_FLOAT, texels.data());
        for (int y = 0; y < size; ++y) {
            for (int x = 0; x < size; ++x) {
                const QVector3D direction = texelDirection(face, x, y, size);
                const double lengthSquared = direction.lengthSquared();
                const double weight = 1.0 / (lengthSquared * std::sqrt(lengthSquared));
                float basis[9];
                shBasis(direction.normalized(), basis);
                const float* texel = &texels[(size_t(y) * size_t(size) + size_t(x)) * 4];
                for (int i = 0; i < 9; ++i)
                    for (int c = 0; c < 3; ++c)
                        sums[i][c] += weight * basis[i] * texel[c];
                totalWeight += weight;
            }
        }
    }
    // Radiance coefficients, scaled by the cosine lobe's band factors over pi.
    const double bandFactors[9] = {1.0, 2.0 / 3, 2.0 / 3, 2.0 / 3, 0.25, 0.25, 0.25, 0.25, 0.25};
    const double toSolidAngle = 4.0 * M_PI / totalWeight;
    for (int i = 0; i < 9; ++i) {
        const double scale = toSolidAngle * bandFactors[i];
        sh.coefficients[i] = QVector3D(float(sums[i][0] * scale), float(sums[i][1] * scale), float(sums[i][2] * scale));
    }
    sh.valid = true;
    return sh;
}

} // namespace Tavren::Vyx::OkuImageCubemapUtils
