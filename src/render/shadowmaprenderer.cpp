#include "render/shadowmaprenderer.h"

#include "core/logging.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/glloader.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/texture.h"
#include "gl/platform/bindable.h"
#include "gl/platform/renderstateguard.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/shadows/shadowmapmanager.h"
#include "gl/textures/texturemanager.h"
#include "render/scenematerial.h"

#include <algorithm>
#include <cmath>

namespace Tavren::Vyx {

namespace {

constexpr int kMaxBlurRadius = 16;

// Weights of taps 0..radius, so that the 2 * radius + 1 taps sum to one.
QVector<float> gaussianWeights(int radius)
{
    const float sigma = std::max(radius * 0.5f, 0.5f);
    QVector<float> weights(radius + 1, 0.0f);
    float total = 0.0f;
    for (int k = 0; k <= radius; ++k) {
        weights[k] = std::exp(-float(k * k) / (2.0f * sigma * sigma));
        total += k ? 2.0f * weights[k] : weights[k];
    }
    for (float& weight : weights)
        weight /= total;
    return weights;
}

std::unique_ptr<ShaderProgram> linked(std::unique_ptr<ShaderProgram> program)
{
    VYX_CHECK_RETURN(program->link(), nullptr, "Shadow map program failed to link: %s", qPrintable(program->log()));
    return program;
}

std::unique_ptr<ShaderProgram> linked(const char* vertexFile, const char* fragmentFile,
                                      GLSLMacroProcessor* macros = nullptr)
{
    auto program = std::make_unique<ShaderProgram>();
    program->setMacroProcessor(macros);
    program->addShaderFromFile(GL_VERTEX_SHADER, QString::fromLatin1(vertexFile));
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QString::fromLatin1(fragmentFile));
    program->setMacroProcessor(nullptr);
    return linked(std::move(program));
}

// Binds the program for one projector's layer.
void useProjector(ShaderProgram& program, const QMatrix4x4& projector)
{
    program.bind();
    program.setUniform(QStringLiteral("u_ShadowMapProjector"), QVariant(projector));
}

std::unique_ptr<Texture> momentsArray(int size, int layers)
{
    auto texture = std::make_unique<Texture>();
    texture->create3D(GL_TEXTURE_2D_ARRAY, GL_RG32F, size, size, layers);
    return texture;
}

} // namespace

ShadowMapRenderer::ShadowMapRenderer() = default;

ShadowMapRenderer::~ShadowMapRenderer()
{
    if (_emptyVertexArray)
        glDeleteVertexArrays(1, &_emptyVertexArray);
}

void ShadowMapRenderer::setBlurRadius(int texels)
{
    _blurRadius = std::clamp(texels, 0, kMaxBlurRadius);
}

bool ShadowMapRenderer::prepare(int size, int layers)
{
    VYX_CHECK_RETURN(size > 0 && size <= 16384, false, "Shadow map size %d outside 1 to 16384", size);
    if (!_momentsProgram) {
        _momentsProgram = linked("ShadowMap_Moments.vert", "ShadowMap_Moments.frag");
        _framebuffer = std::make_unique<FramebufferObject>();
        glGenVertexArrays(1, &_emptyVertexArray);
    }
    if (_blurRadius > 0 && _blurProgramRadius != _blurRadius) {
        GLSLMacroProcessor macros;
        macros.addDefine(QStringLiteral("BLUR_RADIUS"), QString::number(_blurRadius));
        _blurProgram = linked("ShadowMap_Fullscreen.vert", "ShadowMap_Blur.frag", &macros);
        _blurProgramRadius = _blurProgram ? _blurRadius : 0;
    }
    if (!_momentsProgram || (_blurRadius > 0 && !_blurProgram))
        return false;
    if (size == _size && layers <= _layers)
        return true;

    _moments = momentsArray(size, layers);
    _scratch = momentsArray(size, 1);
    _depth = std::make_unique<Texture>();
    _depth->create2D(GL_TEXTURE_2D, GL_DEPTH_COMPONENT32F, size, size);
    // Outside a projector's square the lookups must find "no caster": the cleared value.
    AutoBinder bound(_moments.get());
    const GLfloat nothing[4] = {1.0f, 1.0f, 1.0f, 1.0f};
    glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_BORDER);
    glTexParameteri(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_BORDER);
    glTexParameterfv(GL_TEXTURE_2D_ARRAY, GL_TEXTURE_BORDER_COLOR, nothing);
    _size = size;
    _layers = layers;
    return true;
}

bool ShadowMapRenderer::render(ShadowMapRenderData& data, const DrawFunction& draw)
{
    if (!prepare(data.shadowMapSize(), std::max(1, data.projectorCount())))
        return false;
    ShaderProgram& program = *_momentsProgram;
    return renderLayers(data, [&](const QMatrix4x4& projector) {
        useProjector(program, projector);
        program.setUniform(QStringLiteral("u_ModelMatrix"), QVariant(QMatrix4x4()));
        draw(program, projector);
        program.unbind();
    });
}

bool ShadowMapRenderer::render(ShadowMapRenderData& data, GPUModel& model, quint64 flags, quint64 mask,
                               TextureManager* textureManager)
{
    Casters all;
    all.flags = flags;
    all.mask = mask;
    return render(data, model, {all}, textureManager);
}

bool ShadowMapRenderer::render(ShadowMapRenderData& data, GPUModel& model, const QVector<Casters>& selections,
                               TextureManager* textureManager)
{
    if (!prepare(data.shadowMapSize(), std::max(1, data.projectorCount())))
        return false;
    struct Pass
    {
        const Casters* casters;
        ShaderProgram* program;
        TextureManager* manager;
    };
    QVector<Pass> passes;
    for (const Casters& casters : selections) {
        // Cut-outs resolve tokens in their shader, so they need a manager to build it for.
        TextureManager* manager =
            casters.cutOut && !textureManager ? TextureManager::Instance() : textureManager;
        bool empty = false;
        ShaderProgram* program = modelProgram(model, casters, manager, empty);
        if (!program)
            return false;
        if (!empty)
            passes.append({&casters, program, manager});
    }
    bool drawn = true;
    const bool rendered = renderLayers(data, [&](const QMatrix4x4& projector) {
        for (const Pass& pass : qAsConst(passes)) {
            useProjector(*pass.program, projector);
            SceneMaterial::parkUnsharedDeformationSamplers(*pass.program, model);
            if (pass.casters->cutOut)
                pass.program->setUniform(QStringLiteral("u_DefaultCutoff"), QVariant(pass.casters->defaultCutoff));
            drawn = model.draw(pass.program, pass.manager, pass.casters->flags, pass.casters->mask,
                               GPUModel::eWindingNoCulling, false) &&
                    drawn;
            pass.program->unbind();
        }
    });
    return rendered && drawn;
}

ShaderProgram* ShadowMapRenderer::modelProgram(const GPUModel& model, const Casters& casters,
                                               TextureManager* textureManager, bool& empty)
{
    const QString matrix = QStringLiteral("ModelMatrix");
    const QLatin1String materialName(SceneMaterial::kMaterialPlanName);
    const InstanceDataPlan* plan = nullptr;
    const InstanceDataPlan* material = nullptr;
    for (int i = 0; i < model.numDrawables(); ++i) {
        const GPUModel::Drawable& d = model.drawable(i);
        if ((d.flags & casters.mask) != (casters.flags & casters.mask) || (d.flags & GPUModel::kHiddenFlag))
            continue;
        const InstanceDataPlan* own = d.objectData ? d.objectData->plan() : nullptr;
        VYX_CHECK_RETURN(own && own->dataType(matrix) == InstanceDataPlan::eMat4, nullptr,
                         "Drawable %d has no mat4 \"ModelMatrix\" in its object data to place its shadow", d.id);
        VYX_CHECK_RETURN(!plan || plan->name() == own->name(), nullptr,
                         "Drawable %d places its shadow with plan '%s', others with '%s'", d.id,
                         qPrintable(own->name()), qPrintable(plan->name()));
        plan = own;
        if (casters.cutOut) {
            material = d.materialData ? d.materialData->plan() : nullptr;
            VYX_CHECK_RETURN(material && material->name() == materialName, nullptr,
                             "Drawable %d has no \"%s\" material data to cut its shadow out by", d.id,
                             SceneMaterial::kMaterialPlanName);
        }
    }
    empty = !plan;
    if (empty)
        return _momentsProgram.get();
    GLSLMacroProcessor macros;
    DrawBuffers::setup(&macros); // the draw ID comes from the base instance or a uniform
    if (casters.cutOut) {
        textureManager->setup(&macros);
        macros.addDefine(QStringLiteral("SHADOW_MAP_CUT_OUT"), QStringLiteral("1"));
    }
    macros.addMacro(QStringLiteral("SHADOW_MAP_OBJECT_DATA"), QStringLiteral("#instancedata \"%1\"").arg(plan->name()));
    if (plan->dataType(QStringLiteral("SkinData")) == InstanceDataPlan::eIVec4 &&
        plan->dataType(QStringLiteral("MorphData")) == InstanceDataPlan::eIVec4)
        macros.addDefine(QStringLiteral("SHADOW_MAP_DEFORM"), QStringLiteral("1"));
    if (casters.rigid)
        macros.addDefine(QStringLiteral("SHADOW_MAP_RIGID"), QStringLiteral("1"));
    QString key = plan->name();
    if (casters.cutOut)
        key += QLatin1Char('|') + textureManager->getShaderFile();
    for (const auto* map : {&macros.defines(), &macros.macros()})
        for (auto it = map->constBegin(); it != map->constEnd(); ++it)
            key += QLatin1Char('|') + it.key() + QLatin1Char('=') + it.value();
    std::unique_ptr<ShaderProgram>& cached = _modelPrograms[key];
    if (cached)
        return cached.get();
    auto program = std::make_unique<ShaderProgram>();
    program->setMacroProcessor(&macros);
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("ShadowMap_ModelMoments.vert"));
    program->addShader(GL_VERTEX_SHADER, plan->glslc());
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("VyxUtilities.vert"));
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("VyxUtilities.glslc"));
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("ShadowMap_Moments.frag"));
    if (casters.cutOut) {
        program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("ShadowMap_CutOut.glslc"));
        program->addShader(GL_FRAGMENT_SHADER, material->glslc());
        program->addShaderFromFile(GL_FRAGMENT_SHADER, textureManager->getShaderFile());
    }
    program->setMacroProcessor(nullptr);
    cached = linked(std::move(program));
    if (!cached) {
        _modelPrograms.erase(key);
        return nullptr;
    }
    return cached.get();
}

bool ShadowMapRenderer::renderLayers(ShadowMapRenderData& data, const std::function<void(const QMatrix4x4&)>& draw)
{
    const int size = data.shadowMapSize();
    data.setProjectionTexture(_moments.get());
    RenderStateGuard saved;
    glEnable(GL_DEPTH_TEST);
    glDisable(GL_BLEND);
    glDisable(GL_CULL_FACE);
    if (!_framebuffer->bind())
        return false;
    bool complete = _framebuffer->attach(_depth.get(), GL_DEPTH_ATTACHMENT, 0);
    glViewport(0, 0, size, size);
    glDepthFunc(GL_LESS);
    glDepthMask(GL_TRUE);
    glClearColor(1.0f, 1.0f, 1.0f, 1.0f);
    glClearDepth(1.0);
    for (int layer = 0; complete && layer < data.projectorCount(); ++layer) {
        _framebuffer->attach3D(_moments.get(), GL_COLOR_ATTACHMENT0, 0, layer);
        complete = VYX_CHECK(_framebuffer->isComplete(), "Shadow map layer %d cannot be rendered to", layer);
        if (complete) {
            glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
            draw(data.transforms[layer].toMatrix());
            if (_blurRadius > 0)
                blurLayer(layer);
        }
        _framebuffer->detach(GL_COLOR_ATTACHMENT0);
    }
    if (_framebuffer->hasAttachment(GL_DEPTH_ATTACHMENT))
        _framebuffer->detach(GL_DEPTH_ATTACHMENT);
    _framebuffer->unbind();
    return complete;
}

// On entry and exit the layer is the colour attachment.
void ShadowMapRenderer::blurLayer(int layer)
{
    AutoDisabler noDepthTest(GL_DEPTH_TEST);
    _blurProgram->bind();
    _blurProgram->setUniform(QStringLiteral("u_Weights"), gaussianWeights(_blurRadius));
    glBindVertexArray(_emptyVertexArray);
    auto pass = [&](Texture* source, int sourceLayer, Texture* target, int targetLayer, int stepX) {
        _framebuffer->detach(GL_COLOR_ATTACHMENT0);
        _framebuffer->attach3D(target, GL_COLOR_ATTACHMENT0, 0, targetLayer);
        AutoBinder bound(source);
        _blurProgram->setUniform(QStringLiteral("u_Source"), QVariant(source->unit()));
        _blurProgram->setUniform(QStringLiteral("u_Layer"), QVariant(sourceLayer));
        glUniform2i(_blurProgram->getUniformLocation(QStringLiteral("u_Step")), stepX, 1 - stepX);
        glDrawArrays(GL_TRIANGLES, 0, 3);
    };
    pass(_moments.get(), layer, _scratch.get(), 0, 1);
    pass(_scratch.get(), 0, _moments.get(), layer, 0);
    glBindVertexArray(0);
    _blurProgram->unbind();
}

} // namespace Tavren::Vyx
