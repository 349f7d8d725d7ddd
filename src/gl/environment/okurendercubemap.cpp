#include "gl/environment/okurendercubemap.h"

#include "core/logging.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/internal/passdevicecontext.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/environment/okuimagecubemaputils.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/texture.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/bindable.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"

#include <QElapsedTimer>
#include <QVariant>

#include <cmath>

namespace Tavren::Vyx {

namespace {

// Looking direction and up vector of each face, in GL's face order.
const QVector3D kFaceAxes[6][2] = {
    {{1, 0, 0}, {0, -1, 0}}, {{-1, 0, 0}, {0, -1, 0}}, {{0, 1, 0}, {0, 0, 1}},
    {{0, -1, 0}, {0, 0, -1}}, {{0, 0, 1}, {0, -1, 0}}, {{0, 0, -1}, {0, -1, 0}},
};

// The (sc, tc) of each face as rows over the direction: sc = dot(row 0, n), tc = dot(row 1, n).
const QVector3D kFaceST[6][2] = {
    {{0, 0, -1}, {0, -1, 0}}, {{0, 0, 1}, {0, -1, 0}}, {{1, 0, 0}, {0, 0, 1}},
    {{1, 0, 0}, {0, 0, -1}},  {{1, 0, 0}, {0, -1, 0}}, {{-1, 0, 0}, {0, -1, 0}},
};

// Cross cells (column, row from the top) per face.
const int kHorizontalCells[6][2] = {{2, 1}, {0, 1}, {1, 0}, {1, 2}, {1, 1}, {3, 1}};
const int kVerticalCells[6][2] = {{2, 1}, {0, 1}, {1, 0}, {1, 2}, {1, 1}, {1, 3}};

// Two triangles per face of the cube from -1 to 1, seen from inside or out alike (no culling).
QVector<float> cubePositions()
{
    static const int kCorners[6][4] = {{1, 3, 7, 5}, {0, 4, 6, 2}, {2, 6, 7, 3},
                                       {0, 1, 5, 4}, {4, 5, 7, 6}, {0, 2, 3, 1}};
    static const int kTriangles[6] = {0, 1, 2, 0, 2, 3};
    QVector<float> positions;
    for (const auto& face : kCorners) {
        for (int corner : kTriangles) {
            const int c = face[corner];
            positions << ((c & 1) ? 1.0f : -1.0f) << ((c & 2) ? 1.0f : -1.0f) << ((c & 4) ? 1.0f : -1.0f);
        }
    }
    return positions;
}

GLenum levelTarget(Texture* texture)
{
    return texture->target() == GL_TEXTURE_CUBE_MAP ? GL_TEXTURE_CUBE_MAP_POSITIVE_X : texture->target();
}

} // namespace

OkuRenderCubemapBase::OkuRenderCubemapBase() = default;
OkuRenderCubemapBase::~OkuRenderCubemapBase() = default;

QString OkuRenderCubemapBase::vertexShaderFile() const
{
    return QStringLiteral("CubeRender.vert");
}

void OkuRenderCubemapBase::addDefines(GLSLMacroProcessor&) const {}

bool OkuRenderCubemapBase::begin(ShaderProgram&, int, int)
{
    return true;
}

void OkuRenderCubemapBase::setFaceUniforms(ShaderProgram&, int) {}

QMatrix4x4 OkuRenderCubemapBase::faceViewProjection(int face)
{
    QMatrix4x4 matrix;
    matrix.perspective(90.0f, 1.0f, 0.1f, 10.0f);
    matrix.lookAt(QVector3D(), kFaceAxes[face][0], kFaceAxes[face][1]);
    return matrix;
}

bool OkuRenderCubemapBase::buildProgram()
{
    if (_program)
        return true;
    _macroProcessor = std::make_unique<GLSLMacroProcessor>();
    addDefines(*_macroProcessor);
    auto program = std::make_unique<ShaderProgram>();
    program->setMacroProcessor(_macroProcessor.get());
    program->addShaderFromFile(GL_VERTEX_SHADER, vertexShaderFile());
    program->addShaderFromFile(GL_FRAGMENT_SHADER, fragmentShaderFile());
    for (const QString& file : extraFragmentShaderFiles())
        program->addShaderFromFile(GL_FRAGMENT_SHADER, file);
    program->setFragDataLocations({QStringLiteral("o_OkuFragData")});
    if (!program->compile() || !program->link()) {
        VYX_WARNING("Cube map program %s failed to build:\n%s", qPrintable(fragmentShaderFile()),
                    qPrintable(program->log()));
        return false;
    }
    _program = std::move(program);
    return true;
}

bool OkuRenderCubemapBase::buildCube()
{
    if (_cube)
        return true;
    const QSharedPointer<OpenGLDeviceContext> device = passDeviceContext();
    QSharedPointer<DrawBuffers> cube(new DrawBuffers());
    QSharedPointer<VertexArrayObject> vertexArray = device->newVAO();
    cube->setVAO(vertexArray);
    // The normal is the direction from the centre: the same values as the positions.
    const QVector<float> positions = cubePositions();
    QSharedPointer<BufferObject> vertices = device->newBuffer();
    vertices->setTarget(GL_ARRAY_BUFFER);
    if (!vertexArray->upload(QStringLiteral("oku_Vertex"), vertices, positions, 3, GL_STATIC_DRAW)) {
        VYX_WARNING("Failed to upload buffers.");
        return false;
    }
    QSharedPointer<BufferObject> normals = device->newBuffer();
    normals->setTarget(GL_ARRAY_BUFFER);
    if (!vertexArray->upload(QStringLiteral("oku_Normal"), normals, positions, 3, GL_STATIC_DRAW)) {
        VYX_WARNING("Failed to upload buffers.");
        return false;
    }
    cube->setVertexCount(static_cast<unsigned int>(positions.size() / 3));
    cube->setPrimitiveType(GL_TRIANGLES);
    _cube = cube;
    return true;
}

bool OkuRenderCubemapBase::render(Texture* target, int level, int firstLayer, int layerCount)
{
    VYX_CHECK_RETURN(nullptr != target, false, "No cube map to render into");
    const GLenum type = target->target();
    if (type != GL_TEXTURE_CUBE_MAP && type != GL_TEXTURE_CUBE_MAP_ARRAY) {
        VYX_CRITICAL("[ !! ] Unhandled Texture Type 0x%X", type);
        return false;
    }
    VYX_CHECK_RETURN(layerCount >= 1 && firstLayer >= 0 && (type == GL_TEXTURE_CUBE_MAP_ARRAY || firstLayer == 0),
                     false, "Layers %d + %d do not fit a texture of type 0x%X", firstLayer, layerCount, type);
    GLint size = 0;
    {
        AutoBinder binder(target);
        VYX_CHECK_RETURN(binder.isBound(), false, "Cube map could not be bound");
        glGetTexLevelParameteriv(levelTarget(target), level, GL_TEXTURE_WIDTH, &size);
    }
    VYX_CHECK_RETURN(size > 0, false, "Cube map has no level %d to render into", level);
    if (!buildProgram() || !buildCube())
        return false;

    QElapsedTimer timer;
    timer.start();
    bool ok = true;
    for (int layer = firstLayer; ok && layer < firstLayer + layerCount; layer += batchSize())
        ok = renderPass(target, level, layer, qMin(batchSize(), firstLayer + layerCount - layer), size);
    VYX_DEBUG("rendercubemap() took %d ms", int(timer.elapsed()));
    return ok;
}

bool OkuRenderCubemapBase::renderPass(Texture* target, int level, int firstLayer, int layerCount, int size)
{
    ShaderProgram& program = *_program;
    if (!program.bind())
        return false;
    bool ok = begin(program, firstLayer, layerCount);
    const QSharedPointer<VertexArrayObject> vertexArray = _cube->VAO();
    AutoDisabler depthTest(GL_DEPTH_TEST);
    AutoDisabler blend(GL_BLEND);
    AutoDisabler cullFace(GL_CULL_FACE);
    AutoDisabler scissor(GL_SCISSOR_TEST);
    GLint viewport[4] = {};
    glGetIntegerv(GL_VIEWPORT, viewport);
    glViewport(0, 0, size, size);
    FramebufferObject fbo;
    fbo.bind();
    vertexArray->bind();
    vertexArray->enableShaderProgramArrays(&program);
    program.setUniform(QStringLiteral("u_OkuNormalMatrix"), QVariant::fromValue(QMatrix3x3()));
    for (int face = 0; ok && face < 6; ++face) {
        // Plain cube maps attach a face through a view of the same texture name.
        std::vector<std::unique_ptr<Texture>> faceViews;
        for (int i = 0; i < layerCount; ++i) {
            const GLenum point = GL_COLOR_ATTACHMENT0 + GLenum(i);
            if (target->target() == GL_TEXTURE_CUBE_MAP) {
                faceViews.push_back(std::make_unique<Texture>(target->textureID()));
                faceViews.back()->setTarget(GL_TEXTURE_CUBE_MAP_POSITIVE_X + GLenum(face));
                ok = ok && fbo.attach(faceViews.back().get(), point, level);
            } else {
                ok = ok && fbo.attach3D(target, point, level, (firstLayer + i) * 6 + face);
            }
        }
        fbo.setDrawBuffers();
        ok = ok && VYX_CHECK(fbo.isComplete(), "Cube map face %d of level %d cannot be rendered into", face, level);
        if (ok) {
            program.setUniform(QStringLiteral("u_OkuModelViewProjectionMatrix"), QVariant(faceViewProjection(face)));
            setFaceUniforms(program, face);
            _cube->draw(&program);
        }
        fbo.detachAll();
    }
    vertexArray->unbind();
    fbo.unbind();
    glViewport(viewport[0], viewport[1], viewport[2], viewport[3]);
    end();
    program.unbind();
    return ok;
}

OkuRenderCubemapBaseTexture::OkuRenderCubemapBaseTexture(Texture* source, unsigned int minFilter,
                                                         unsigned int magFilter, unsigned int wrapS,
                                                         unsigned int wrapT)
    : _source(source)
{
    _parameters = {{GL_TEXTURE_MIN_FILTER, int(minFilter)}, {GL_TEXTURE_MAG_FILTER, int(magFilter)}};
    if (wrapS)
        _parameters.append({GL_TEXTURE_WRAP_S, int(wrapS)});
    if (wrapT)
        _parameters.append({GL_TEXTURE_WRAP_T, int(wrapT)});
}

bool OkuRenderCubemapBaseTexture::begin(ShaderProgram& program, int, int)
{
    VYX_CHECK_RETURN(nullptr != _source, false, "No source texture to render from");
    if (!_source->bind())
        return false;
    _begun = true;
    _saved.clear();
    for (const auto& parameter : _parameters) {
        GLint value = 0;
        glGetTexParameteriv(_source->target(), parameter.first, &value);
        _saved.append({parameter.first, value});
        glTexParameteri(_source->target(), parameter.first, parameter.second);
    }
    if (_seamless) {
        _seamlessWasOn = glIsEnabled(GL_TEXTURE_CUBE_MAP_SEAMLESS);
        glEnable(GL_TEXTURE_CUBE_MAP_SEAMLESS);
    }
    program.setUniform(QStringLiteral("s_texture"), QVariant(_source->unit()));
    return true;
}

void OkuRenderCubemapBaseTexture::end()
{
    if (!_begun)
        return;
    _begun = false;
    if (_seamless && !_seamlessWasOn)
        glDisable(GL_TEXTURE_CUBE_MAP_SEAMLESS);
    // The source is still bound from begin(); its unit is active again after this bind.
    _source->bind();
    for (const auto& parameter : _saved)
        glTexParameteri(_source->target(), parameter.first, parameter.second);
    _source->unbind();
    _source->unbind();
}

QStringList OkuRenderCubemapColorSource::extraFragmentShaderFiles() const
{
    return _colorSpace == 0 ? QStringList() : QStringList{QStringLiteral("Func_ColorSpace.glslc")};
}

void OkuRenderCubemapColorSource::addDefines(GLSLMacroProcessor& mp) const
{
    if (_colorSpace == 1)
        mp.addDefine(QStringLiteral("OKU_CUBERENDER_CONVERT_COLORSPACE"), QStringLiteral("colorSpaceSRGBToLinear"));
    else if (_colorSpace == 2)
        mp.addDefine(QStringLiteral("OKU_CUBERENDER_CONVERT_COLORSPACE"), QStringLiteral("colorSpaceGamma22ToLinear"));
}

OkuRenderCubemap_Cross::OkuRenderCubemap_Cross(Texture* source, bool vertical)
    : OkuRenderCubemapColorSource(source, GL_NEAREST, GL_NEAREST)
    , _vertical(vertical)
{
}

QMatrix4x2 OkuRenderCubemap_Cross::normalToUv(int face, bool vertical)
{
    const float columns = vertical ? 3.0f : 4.0f;
    const float rows = vertical ? 4.0f : 3.0f;
    const int* cell = vertical ? kVerticalCells[face] : kHorizontalCells[face];
    // The vertical cross holds -Z upside down, so it continues below -Y.
    const float turn = (vertical && face == 5) ? -1.0f : 1.0f;
    // u = (column + s) / columns, v = 1 - (row + t) / rows, with s = (sc + 1) / 2, t = (tc + 1) / 2.
    const QVector3D uRow = kFaceST[face][0] * (0.5f * turn / columns);
    const QVector3D vRow = kFaceST[face][1] * (-0.5f * turn / rows);
    const float values[8] = {uRow.x(), uRow.y(), uRow.z(), (cell[0] + 0.5f) / columns,
                             vRow.x(), vRow.y(), vRow.z(), 1.0f - (cell[1] + 0.5f) / rows};
    return QMatrix4x2(values);
}

void OkuRenderCubemap_Cross::setFaceUniforms(ShaderProgram& program, int face)
{
    program.setUniform(QStringLiteral("u_OkuNormalToUvMatrix"), QVariant::fromValue(normalToUv(face, _vertical)));
}

OkuRenderCubemap_LatLongSphere::OkuRenderCubemap_LatLongSphere(Texture* source)
    : OkuRenderCubemapColorSource(source, GL_LINEAR, GL_LINEAR, GL_REPEAT, GL_CLAMP_TO_EDGE)
{
}

OkuRenderCubemap_Sphere::OkuRenderCubemap_Sphere(Texture* source)
    : OkuRenderCubemapColorSource(source, GL_LINEAR, GL_LINEAR, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE)
{
}

OkuRenderCubemapBatched::OkuRenderCubemapBatched(Texture* cubemap, QVector<float> amounts,
                                                 const QString& fragmentFile, const QString& batchSizeDefine)
    : OkuRenderCubemapBaseTexture(cubemap, GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR)
    , _amounts(std::move(amounts))
    , _fragmentFile(fragmentFile)
    , _batchSizeDefine(batchSizeDefine)
{
    setSeamless(true);
}

void OkuRenderCubemapBatched::addDefines(GLSLMacroProcessor& mp) const
{
    mp.addDefine(_batchSizeDefine, QString::number(batchSize()));
}

int OkuRenderCubemapBatched::batchSize() const
{
    return qBound(1, int(_amounts.size()), OkuImageCubemapUtils::kBatchSize);
}

bool OkuRenderCubemapBatched::begin(ShaderProgram& program, int firstLayer, int layerCount)
{
    if (!OkuRenderCubemapBaseTexture::begin(program, firstLayer, layerCount))
        return false;
    for (int i = 0; i < batchSize(); ++i) {
        // Entries past the layers of this pass are rendered nowhere.
        const float amount = i < layerCount ? _amounts.value(firstLayer + i) : 0.0f;
        program.setUniform(QStringLiteral("s_blur[%1].value").arg(i), QVariant(amount));
    }
    return true;
}

OkuRenderCubemap_Blur::OkuRenderCubemap_Blur(Texture* cubemap, QVector<float> amounts)
    : OkuRenderCubemapBatched(cubemap, std::move(amounts), QStringLiteral("CubeRender_Blur.frag"),
                              QStringLiteral("OKU_CUBERENDER_BLUR_BATCH_SIZE"))
{
}

OkuRenderCubemap_NDotL::OkuRenderCubemap_NDotL(Texture* cubemap, QVector<float> amounts)
    : OkuRenderCubemapBatched(cubemap, std::move(amounts), QStringLiteral("CubeRender_NDotL.frag"),
                              QStringLiteral("OKU_CUBERENDER_NDOT_BATCH_SIZE"))
{
}

OkuRenderCubemap_Irradiance::OkuRenderCubemap_Irradiance(Texture* blockTable)
    : OkuRenderCubemapBaseTexture(blockTable, GL_NEAREST, GL_NEAREST)
{
}

OkuRenderCubemap_Prefiltered::OkuRenderCubemap_Prefiltered(Texture* cubemap)
    : OkuRenderCubemapBaseTexture(cubemap, GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR)
{
    setSeamless(true);
}

void OkuRenderCubemap_Prefiltered::addDefines(GLSLMacroProcessor& mp) const
{
    mp.addDefine(QStringLiteral("VYX_PREFILTER_MAX_LIGHTS"), QString::number(kMaxLights));
}

QStringList OkuRenderCubemap_Prefiltered::extraFragmentShaderFiles() const
{
    return {QStringLiteral("ImportanceSample.glslc")};
}

bool OkuRenderCubemap_Prefiltered::begin(ShaderProgram& program, int firstLayer, int layerCount)
{
    VYX_CHECK_RETURN(nullptr != _blocks && _lights.size() <= 16 * kMaxLights, false,
                     "No block table, or too many lights, to render the prefiltered map with");
    if (!OkuRenderCubemapBaseTexture::begin(program, firstLayer, layerCount))
        return false;
    // The source is bound on the active unit: its face size sets the solid angle of a texel, and
    // its levels with storage the coarsest a sample may read.
    GLint size = 0, maxLevel = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_CUBE_MAP_POSITIVE_X, 0, GL_TEXTURE_WIDTH, &size);
    glGetTexParameteriv(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_MAX_LEVEL, &maxLevel);
    int lastLevel = 0;
    for (GLint width = 0; lastLevel < maxLevel && lastLevel < 16; ++lastLevel) {
        glGetTexLevelParameteriv(GL_TEXTURE_CUBE_MAP_POSITIVE_X, lastLevel + 1, GL_TEXTURE_WIDTH, &width);
        if (width <= 0)
            break;
    }
    const int outputSize = _outputSize > 0 ? _outputSize : size;
    const float matchingLod = qBound(0.0f, std::log2(float(size) / float(outputSize)), float(lastLevel));
    // The share of the lobe's weight N.L D / 4 above the horizon (with N = V: D / 4 is the pdf of
    // L), which the lights' exact terms are divided by as the sampled part divides by its own.
    const double a2 = std::pow(double(_roughness), 4.0);
    double lobeWeight = 0.0;
    const int steps = 4096;
    for (int i = 0; i < steps; ++i) {
        // Over u, the GGX CDF of N.H: the weight is max(0, N.L) = max(0, 2 N.H^2 - 1).
        const double u = (i + 0.5) / steps, cos2 = (1.0 - u) / (1.0 + (a2 - 1.0) * u);
        lobeWeight += qMax(0.0, 2.0 * cos2 - 1.0);
    }
    program.setUniform(QStringLiteral("u_Roughness"), QVariant(_roughness));
    program.setUniform(QStringLiteral("u_SampleCount"), QVariant(_samples));
    program.setUniform(QStringLiteral("u_SourceSize"), QVariant(float(size)));
    program.setUniform(QStringLiteral("u_SourceMaxLod"), QVariant(float(lastLevel)));
    program.setUniform(QStringLiteral("u_MatchingLod"), QVariant(matchingLod));
    program.setUniform(QStringLiteral("u_LobeWeight"), QVariant(float(lobeWeight / steps)));
    const int lightCount = int(_lights.size() / 16);
    // Narrow lobes see a light only near it: past the angle where all the lights' power together
    // would add less than 0.4% of the environment's mean radiance, none is evaluated.
    double lightPower = 0.0;
    for (int i = 0; i < lightCount; ++i)
        lightPower += (0.2126 * _lights[16 * i + 4] + 0.7152 * _lights[16 * i + 5] + 0.0722 * _lights[16 * i + 6]) *
                      _lights[16 * i + 3];
    float cutoff = -1.0f;
    for (int step = 1; step <= 180 && lightPower > 0.0; ++step) {
        const double angle = step * M_PI / 180.0, nDotH = std::cos(angle / 2), d = nDotH * nDotH * (a2 - 1.0) + 1.0;
        const double reach = lightPower * a2 / (M_PI * d * d) * std::max(std::cos(angle), 0.0) / 4.0 / (lobeWeight / steps);
        if (reach < 4e-3 * _meanRadiance) {
            cutoff = float(std::cos(angle));
            break;
        }
    }
    program.setUniform(QStringLiteral("u_LightCutoff"), QVariant(cutoff));
    program.setUniform(QStringLiteral("u_LightCount"), QVariant(lightCount));
    const int lightsAt = program.getUniformLocation(QStringLiteral("u_Lights[0]"));
    if (lightsAt >= 0 && lightCount > 0)
        glUniform4fv(lightsAt, GLsizei(lightCount * 4), _lights.constData());
    program.setUniform(QStringLiteral("u_SumBlocks"), QVariant(_roughness >= 0.5f ? 1 : 0));
    // Bound at every level: a sampler left on the cube map's unit would fail the draw.
    _blocksBound = _blocks->bind();
    program.setUniform(QStringLiteral("s_blocks"), QVariant(_blocks->unit()));
    return _blocksBound;
}

void OkuRenderCubemap_Prefiltered::end()
{
    if (_blocksBound)
        _blocks->unbind();
    _blocksBound = false;
    OkuRenderCubemapBaseTexture::end();
}

} // namespace Tavren::Vyx
