#include "render/internal/shadingprograms.h"

#include "gl/drawing/drawbuffers.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/shadows/shadowmapmanager.h"
#include "gl/textures/texturemanager.h"
#include "render/scenematerial.h"

namespace Tavren::Vyx {

namespace {

void setVectors(GLint location, const QVector<QVector3D>& values)
{
    if (location >= 0 && !values.isEmpty())
        glUniform3fv(location, GLsizei(values.size()), reinterpret_cast<const GLfloat*>(values.constData()));
}

} // namespace

ShadingPrograms::ShadingPrograms() = default;
ShadingPrograms::~ShadingPrograms() = default;

ShadingPrograms::Program* ShadingPrograms::get(quint64 extensionFlags, int tokensPerDraw, QString& error)
{
    const quint64 key = extensionFlags & SceneMaterial::kVariantFlags;
    const auto found = _programs.find({key, tokensPerDraw});
    if (found != _programs.end()) {
        if (!found->second.program)
            error = found->second.error; // failed before: not linked again each frame
        return found->second.program ? &found->second : nullptr;
    }
    Program& made = _programs[{key, tokensPerDraw}];
    TextureManager* manager = _manager ? _manager : TextureManager::Instance();
    // Registered before the sources that name them are read.
    InstanceDataPlan* object = SceneMaterial::objectPlan();
    InstanceDataPlan* material = SceneMaterial::materialPlan();
    GLSLMacroProcessor macros;
    DrawBuffers::setup(&macros);
    manager->setupForDraws(&macros, tokensPerDraw);
    ShadowMapManager::setup(&macros);
    for (const QString& define : SceneMaterial::variantDefines(key))
        macros.addDefine(define, QStringLiteral("1"));
    auto program = std::make_unique<ShaderProgram>();
    program->setMacroProcessor(&macros);
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("SceneShading.vert"));
    program->addShader(GL_VERTEX_SHADER, object->glslc());
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("VyxUtilities.vert"));
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("VyxUtilities.glslc"));
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("SceneShading.frag"));
    program->addShader(GL_FRAGMENT_SHADER, material->glslc());
    program->addShaderFromFile(GL_FRAGMENT_SHADER, manager->getShaderFile());
    program->addShaderFromFile(GL_FRAGMENT_SHADER, ShadowMapManager::getShaderFile());
    program->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("SceneToneMap.glslc"));
    const bool linked = program->link();
    program->setMacroProcessor(nullptr);
    if (!linked) {
        error = QStringLiteral("The shading program (%1) does not link: %2")
                    .arg(key ? SceneMaterial::variantDefines(key).join(QLatin1Char(' ')) : QStringLiteral("metal-roughness"),
                         program->log());
        made.error = error;
        return nullptr;
    }
    const auto at = [&](const char* name) { return GLint(program->getUniformLocation(QLatin1String(name))); };
    made = {nullptr,
            at("u_LightCount"), at("u_LightType"), at("u_LightRange"), at("u_LightCone"), at("u_LightColor"),
            at("u_LightPosition"), at("u_LightDirection"), at("u_IrradianceSH"), at("u_ViewProjection"),
            at("u_Eye"), at("u_Exposure"), at("u_EnvironmentIntensity"), at("u_PrefilteredLevels"),
            at("u_PrefilteredMap"), at("u_BRDFTable"), at("u_ShadowsEnabled"), at("u_ShadowMapDepthSampler"),
            at("u_AlphaBlend"), at("u_TransmissionMap"), at("u_TransmissionLevels"),
            at("u_SheenAlbedo"), QString()};
    made.program = std::move(program);
    return &made;
}

bool ShadingPrograms::begin(Program& p, const ShadingFrame& frame)
{
    ShaderProgram& program = *p.program;
    if (!program.bind())
        return false;
    const int lights = frame.lightTypes.size();
    program.setUniform(p.lightCount, lights);
    if (lights > 0) {
        glUniform1iv(p.lightType, GLsizei(lights), frame.lightTypes.constData());
        program.setUniform(p.lightRange, frame.lightRanges);
        glUniform2fv(p.lightCone, GLsizei(lights), frame.lightCones.constData());
    }
    setVectors(p.lightColor, frame.lightColours);
    setVectors(p.lightPosition, frame.lightPositions);
    setVectors(p.lightDirection, frame.lightDirections);
    setVectors(p.irradianceSH, frame.irradianceSH);
    program.setUniform(p.viewProjection, QVariant(frame.viewProjection));
    program.setUniform(p.eye, QVariant(frame.eye));
    program.setUniform(p.exposure, QVariant(frame.exposure));
    program.setUniform(p.environmentIntensity, QVariant(frame.environmentIntensity));
    program.setUniform(p.prefilteredLevels, QVariant(frame.prefilteredLevels));
    program.setUniform(p.prefilteredMap, frame.prefilteredUnit);
    program.setUniform(p.brdfTable, frame.brdfUnit);
    program.setUniform(p.alphaBlend, int(frame.alphaBlend));
    if (p.transmissionMap >= 0) {
        // Before the copy exists the sampler rests on the BRDF table's unit, of the same type.
        program.setUniform(p.transmissionMap, frame.transmissionUnit >= 0 ? frame.transmissionUnit : frame.brdfUnit);
        program.setUniform(p.transmissionLevels, QVariant(frame.transmissionLevels));
    }
    if (p.sheenAlbedo >= 0)
        program.setUniform(p.sheenAlbedo, frame.sheenUnit >= 0 ? frame.sheenUnit : frame.brdfUnit);
    program.setUniform(p.shadowsEnabled, int(frame.shadows != nullptr));
    if (frame.shadows)
        ShadowMapManager::bind(&program, *frame.shadows);
    else // the unused shadow sampler must not share a unit with a sampler of another type
        program.setUniform(p.shadowMapDepthSampler, frame.spareUnit);
    return true;
}

void ShadingPrograms::end(Program& p, const ShadingFrame& frame)
{
    if (frame.shadows)
        ShadowMapManager::unbind(p.program.get(), *frame.shadows);
    p.program->unbind();
}

} // namespace Tavren::Vyx
