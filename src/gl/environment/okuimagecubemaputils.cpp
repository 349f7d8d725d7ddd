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

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
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

// The first level of a cube map no larger than maxFaceSize, read back as RGBA floats, one vector
// per face; false, with a message, for an unusable source.
struct CubeLevelTexels
{
    int size = 0;
    std::vector<float> faces[6];
};

bool readBackCubeLevel(Texture* cubemap, int maxFaceSize, CubeLevelTexels& out)
{
    LevelInfo info;
    if (!sourceLevel(cubemap, GL_TEXTURE_CUBE_MAP, info))
        return false;
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
    PixelStoreGuard alignment(GL_PACK_ALIGNMENT, 4);
    VYX_CHECK_GL_ERROR(); // earlier errors are not this read-back's
    out.size = size;
    for (int face = 0; face < 6; ++face) {
        out.faces[face].resize(size_t(size) * size_t(size) * 4);
        glGetTexImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + GLenum(face), level, GL_RGBA, GL_FLOAT, out.faces[face].data());
    }
    return VYX_CHECK(glGetError() == GL_NO_ERROR, "Cube map level %d could not be read back", level);
}

// The solid angle of texel (x, y) of a face of the given size, exactly: the integral of the
// projected area element over the texel, from its four corners.
double texelSolidAngle(int x, int y, int size)
{
    const auto corner = [size](int cx, int cy) {
        const double u = 2.0 * cx / size - 1.0, v = 2.0 * cy / size - 1.0;
        return std::atan2(u * v, std::sqrt(u * u + v * v + 1.0));
    };
    return corner(x + 1, y + 1) - corner(x, y + 1) - corner(x + 1, y) + corner(x, y);
}

// The prefiltered map's split of an environment into a smooth part and small lights: of the first
// level no larger than kLightLevelSize, every texel holding more than kLightShare of the whole
// environment's light (luminance times solid angle) and brighter than kLightContrast times its
// mean radiance, the kMaxLights strongest at most, is cut down to that share, and its excess
// becomes a light. Filtered importance sampling then sees no texel that a sample catching it or
// not would change by more than that share. Four vec4 per light: its direction with its solid
// angle, its radiance with its angular size, and the two edge vectors of its texel on the face's
// plane (where the direction lies at major axis 1).
constexpr int kLightLevelSize = 64;
constexpr int kMaxLights = OkuRenderCubemap_Prefiltered::kMaxLights;
constexpr double kLightShare = 0.001;
// Nor is a texel below this many times the mean radiance a light: smooth skies keep every texel.
constexpr double kLightContrast = 4.0;

// The smooth part also comes as blocks of texels, kBlocks x kBlocks a face at most, for the
// widest lobes: a row of two texels per block, the direction of its power's centre with its
// solid angle, and its power (radiance times solid angle) per channel.
constexpr int kBlocks = 8;

struct SplitEnvironment
{
    std::unique_ptr<Texture> smooth; // mipmapped
    QVector<float> lights;
    double meanRadiance = 0.0;
    Texture blocks;
};

bool splitBrightTexels(Texture* cubemap, GLenum internalFormat, SplitEnvironment& out)
{
    CubeLevelTexels level;
    if (!readBackCubeLevel(cubemap, kLightLevelSize, level))
        return false;
    const int size = level.size;
    const size_t perFace = size_t(size) * size_t(size);
    // Every face has the same texel solid angles.
    std::vector<double> solidAngles(perFace);
    for (size_t i = 0; i < perFace; ++i)
        solidAngles[i] = texelSolidAngle(int(i % size_t(size)), int(i / size_t(size)), size);
    std::vector<double> power(6 * perFace);
    double total = 0.0;
    for (size_t i = 0; i < power.size(); ++i) {
        const float* t = &level.faces[i / perFace][(i % perFace) * 4];
        power[i] = (0.2126 * t[0] + 0.7152 * t[1] + 0.0722 * t[2]) * solidAngles[i % perFace];
        total += qMax(power[i], 0.0);
    }
    out.meanRadiance = total / (4.0 * M_PI);
    std::vector<size_t> order(power.size());
    std::iota(order.begin(), order.end(), size_t(0));
    const size_t candidates = qMin(order.size(), size_t(kMaxLights) + 1);
    std::partial_sort(order.begin(), order.begin() + ptrdiff_t(candidates), order.end(),
                      [&](size_t a, size_t b) { return power[a] > power[b]; });
    double threshold = kLightShare * total;
    if (candidates > size_t(kMaxLights))
        threshold = qMax(threshold, power[order[size_t(kMaxLights)]]);
    QVector<float>& table = out.lights;
    for (size_t k = 0; k < qMin(candidates, size_t(kMaxLights)) && power[order[k]] > threshold; ++k) {
        const size_t index = order[k];
        if (power[index] <= kLightContrast * out.meanRadiance * solidAngles[index % perFace])
            continue;
        const int face = int(index / perFace), x = int(index % size_t(size)), y = int(index % perFace / size_t(size));
        float* t = &level.faces[face][(index % perFace) * 4];
        const float keep = float(threshold / power[index]);
        const QVector3D centre = texelDirection(face, x, y, size);
        const QVector3D direction = centre.normalized();
        const QVector3D edgeS = texelDirection(face, x + 1, y, size) - centre;
        const QVector3D edgeT = texelDirection(face, x, y + 1, size) - centre;
        const float solidAngle = float(solidAngles[index % perFace]);
        table << direction.x() << direction.y() << direction.z() << solidAngle << t[0] * (1 - keep)
              << t[1] * (1 - keep) << t[2] * (1 - keep) << std::sqrt(solidAngle) << edgeS.x() << edgeS.y()
              << edgeS.z() << 0.0f << edgeT.x() << edgeT.y() << edgeT.z() << 0.0f;
        for (int c = 0; c < 3; ++c)
            t[c] *= keep;
    }
    const int blocks = qMin(kBlocks, size);
    // Centre x, y, z, power r, g, b and solid angle.
    std::vector<double> blockSums(size_t(6 * blocks * blocks) * 7, 0.0);
    for (size_t i = 0; i < power.size(); ++i) {
        const int face = int(i / perFace), x = int(i % size_t(size)), y = int(i % perFace / size_t(size));
        const float* t = &level.faces[face][(i % perFace) * 4];
        const double solidAngle = solidAngles[i % perFace];
        const double weight = qMax(0.2126 * t[0] + 0.7152 * t[1] + 0.0722 * t[2], 1e-9) * solidAngle;
        const QVector3D direction = texelDirection(face, x, y, size).normalized();
        double* block = &blockSums[size_t((face * blocks + y * blocks / size) * blocks + x * blocks / size) * 7];
        for (int axis = 0; axis < 3; ++axis)
            block[axis] += weight * direction[axis];
        for (int c = 0; c < 3; ++c)
            block[3 + c] += solidAngle * t[c];
        block[6] += solidAngle;
    }
    std::vector<float> blockTable;
    for (size_t b = 0; b < blockSums.size() / 7; ++b) {
        const double* block = &blockSums[b * 7];
        const QVector3D centre = QVector3D(float(block[0]), float(block[1]), float(block[2])).normalized();
        blockTable.insert(blockTable.end(), {centre.x(), centre.y(), centre.z(), float(block[6]), float(block[3]),
                                             float(block[4]), float(block[5]), 0.0f});
    }
    out.blocks.create2D(GL_TEXTURE_2D, GL_RGBA32F, 2 * blocks, 6 * blocks);
    out.smooth = newCubemap(unsigned(size), internalFormat, 1);
    if (!out.smooth)
        return false;
    PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 4);
    {
        AutoBinder binder(&out.blocks);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 2 * blocks, 6 * blocks, GL_RGBA, GL_FLOAT, blockTable.data());
    }
    AutoBinder binder(out.smooth.get());
    for (int face = 0; face < 6; ++face)
        glTexSubImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + GLenum(face), 0, 0, 0, size, size, GL_RGBA, GL_FLOAT,
                        level.faces[face].data());
    glGenerateMipmap(GL_TEXTURE_CUBE_MAP);
    return VYX_CHECK(glGetError() == GL_NO_ERROR, "The environment's smooth part could not be uploaded");
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

// Copies level `from` of a cube map into level 0 of another of the same face size; false, with
// the destination untouched, when the source has no such level. Roughness 0 is the source
// itself, so a copy does what the shader pass would, without sampling every texel.
static bool copyCubeLevel(Texture* source, int from, Texture* target, int size)
{
    GLint width = 0;
    {
        AutoBinder binder(source);
        glGetTexLevelParameteriv(GL_TEXTURE_CUBE_MAP_POSITIVE_X, from, GL_TEXTURE_WIDTH, &width);
    }
    if (width != size)
        return false;
    VYX_CHECK_GL_ERROR(); // earlier errors are not this copy's
    FramebufferObject fbo;
    fbo.bind();
    bool ok = true;
    for (int face = 0; ok && face < 6; ++face) {
        Texture view(source->textureID());
        view.setTarget(GL_TEXTURE_CUBE_MAP_POSITIVE_X + GLenum(face));
        ok = fbo.attach(&view, GL_COLOR_ATTACHMENT0, from) && fbo.isComplete();
        if (ok) {
            glReadBuffer(GL_COLOR_ATTACHMENT0);
            AutoBinder binder(target);
            glCopyTexSubImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + GLenum(face), 0, 0, 0, 0, 0, size, size);
        }
        fbo.detachAll();
    }
    fbo.unbind();
    return ok && glGetError() == GL_NO_ERROR;
}

float prefilteredLevelRoughness(int level, int levels)
{
    if (levels <= 1 || level <= 0)
        return 0.0f;
    return 1.0f - std::sqrt(1.0f - float(qMin(level, levels - 1)) / float(levels - 1));
}

float prefilteredLevelForRoughness(float roughness, int levels)
{
    const float r = qBound(0.0f, roughness, 1.0f);
    return float(qMax(levels - 1, 0)) * r * (2.0f - r);
}

Texture* createPrefilteredEnvMapFromGLCubemap(Texture* cubemap, unsigned int size, int levels, int samples)
{
    LevelInfo info;
    if (!sourceLevel(cubemap, GL_TEXTURE_CUBE_MAP, info))
        return nullptr;
    VYX_CHECK_RETURN(levels >= 1 && levels <= 16 && size >> (levels - 1) >= 1, nullptr,
                     "%d levels do not fit a cube map of size %u", levels, size);
    VYX_CHECK_RETURN(samples >= 1, nullptr, "%d samples per texel are too few", samples);
    std::unique_ptr<Texture> result = newCubemap(size, info.float32 ? GL_RGBA32F : GL_RGBA16F, 1, levels);
    if (!result)
        return nullptr;
    // Roughness 0 resamples the source itself; the rougher levels read its split.
    SplitEnvironment split;
    if (levels > 1 && !splitBrightTexels(cubemap, info.float32 ? GL_RGBA32F : GL_RGBA16F, split))
        return nullptr;
    if (levels == 1)
        split.blocks.create2D(GL_TEXTURE_2D, GL_RGBA32F, 2, 1);
    OkuRenderCubemap_Prefiltered sharp(cubemap);
    sharp.setBlocks(&split.blocks);
    OkuRenderCubemap_Prefiltered rough(levels > 1 ? split.smooth.get() : cubemap);
    rough.setLights(split.lights, split.meanRadiance);
    rough.setBlocks(&split.blocks);
    int matchingLevel = 0;
    while (unsigned(info.width) > (size << matchingLevel) && matchingLevel < 16)
        ++matchingLevel;
    for (int level = 0; level < levels; ++level) {
        if (level == 0 && copyCubeLevel(cubemap, matchingLevel, result.get(), int(size)))
            continue;
        OkuRenderCubemap_Prefiltered& renderer = level == 0 ? sharp : rough;
        renderer.setRoughness(prefilteredLevelRoughness(level, levels));
        renderer.setSamples(samples);
        renderer.setOutputSize(int(size >> level));
        if (!renderer.render(result.get(), level))
            return nullptr;
    }
    glFlush();
    return result.release();
}

namespace {

// A size x size table of a quadrature over (N.V, roughness) at texel centres, drawn by one of the
// table fragment shaders into a texture of the given format.
Texture* integrateTable(const char* what, const QString& fragment, unsigned int size, int samples, GLenum internalFormat,
                        GLenum format)
{
    VYX_CHECK_RETURN(size >= 1 && size <= 4096, nullptr, "%s table size %u is not within 1 ... 4096", what, size);
    VYX_CHECK_RETURN(samples >= 1, nullptr, "%d samples per texel are too few", samples);
    const QSharedPointer<OpenGLDeviceContext> device = passDeviceContext();
    ShaderProgram program;
    program.addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("preintegratedBRDFTableVS.glslc"));
    program.addShaderFromFile(GL_FRAGMENT_SHADER, fragment);
    program.addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("ImportanceSample.glslc"));
    program.setFragDataLocations({QStringLiteral("out_FragColor")});
    if (!program.compile() || !program.link()) {
        VYX_WARNING("%s table program failed to build:\n%s", what, qPrintable(program.log()));
        return nullptr;
    }
    const QSharedPointer<DrawBuffers> quad = device->fullscreenQuad();
    FramebufferObject fbo;
    fbo.bind();
    std::unique_ptr<Texture> table(
        fbo.createTexture2D(GL_COLOR_ATTACHMENT0, internalFormat, format, GL_HALF_FLOAT, int(size), int(size)));
    bool ok = table && VYX_CHECK(fbo.isComplete(), "%s table of size %u cannot be rendered into", what, size);
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


} // namespace

Texture* createPreintegratedBRDFTable(unsigned int size, int samples)
{
    return integrateTable("BRDF", QStringLiteral("preintegratedBRDFTableFS.glslc"), size, samples, GL_RG16F, GL_RG);
}

Texture* createSheenAlbedoTable(unsigned int size, int samples)
{
    return integrateTable("Sheen albedo", QStringLiteral("sheenAlbedoTableFS.glslc"), size, samples, GL_R16F, GL_RED);
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
    CubeLevelTexels level;
    if (!readBackCubeLevel(cubemap, maxFaceSize, level))
        return sh;
    const int size = level.size;
    double sums[9][3] = {};
    double totalWeight = 0.0;
    // Three bands are smooth enough that texel centres stand for their whole solid angle.
    for (int face = 0; face < 6; ++face) {
        for (int y = 0; y < size; ++y) {
            for (int x = 0; x < size; ++x) {
                const QVector3D direction = texelDirection(face, x, y, size);
                const double lengthSquared = direction.lengthSquared();
                const double weight = 1.0 / (lengthSquared * std::sqrt(lengthSquared));
                float basis[9];
                shBasis(direction.normalized(), basis);
                const float* texel = &level.faces[face][(size_t(y) * size_t(size) + size_t(x)) * 4];
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

Texture* createIrradianceCubemapFromGLCubemap(Texture* cubemap, unsigned int size, int maxFaceSize)
{
    LevelInfo info;
    CubeLevelTexels level;
    if (!sourceLevel(cubemap, GL_TEXTURE_CUBE_MAP, info) || !readBackCubeLevel(cubemap, maxFaceSize, level)) {
        VYX_CRITICAL("[ !! ] Unable to create irradiance cubemap from cubemap.");
        return nullptr;
    }
    // Blocks of texels, per face a grid of blocks x blocks; each holds three vectors (red, green,
    // blue) in a row of the table: 3 * blocks texels wide, 6 * blocks high.
    const int texels = level.size, blocks = qMin(16, texels);
    std::vector<double> sums(size_t(6 * blocks * blocks) * 9, 0.0);
    for (int face = 0; face < 6; ++face) {
        for (int y = 0; y < texels; ++y) {
            for (int x = 0; x < texels; ++x) {
                const QVector3D direction = texelDirection(face, x, y, texels).normalized();
                const double solidAngle = texelSolidAngle(x, y, texels);
                const float* texel = &level.faces[face][(size_t(y) * size_t(texels) + size_t(x)) * 4];
                const size_t block = size_t((face * blocks + y * blocks / texels) * blocks + x * blocks / texels);
                for (int c = 0; c < 3; ++c)
                    for (int axis = 0; axis < 3; ++axis)
                        sums[block * 9 + size_t(c * 3 + axis)] += solidAngle * texel[c] * direction[axis];
            }
        }
    }
    std::vector<float> table(sums.size() / 3 * 4, 0.0f);
    for (size_t vector = 0; vector < sums.size() / 3; ++vector)
        for (int axis = 0; axis < 3; ++axis)
            table[vector * 4 + size_t(axis)] = float(sums[vector * 3 + size_t(axis)] / M_PI);
    Texture blockTable;
    blockTable.create2D(GL_TEXTURE_2D, GL_RGBA32F, 3 * blocks, 6 * blocks);
    {
        AutoBinder binder(&blockTable);
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 4);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 3 * blocks, 6 * blocks, GL_RGBA, GL_FLOAT, table.data());
    }
    OkuRenderCubemap_Irradiance renderer(&blockTable);
    Texture* result = renderCubemap(renderer, newCubemap(size, info.float32 ? GL_RGBA32F : GL_RGBA16F, 1), 1);
    if (!result)
        VYX_CRITICAL("[ !! ] Unable to create irradiance cubemap from cubemap.");
    return result;
}

} // namespace Tavren::Vyx::OkuImageCubemapUtils
