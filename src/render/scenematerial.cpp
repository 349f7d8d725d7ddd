#include "render/scenematerial.h"

#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/glloader.h"
#include "gl/model/gpumodel.h"
#include "gl/shaders/shaderprogram.h"

namespace Tavren::Vyx::SceneMaterial {

InstanceDataPlan* materialPlan()
{
    static InstanceDataPlan* plan = [] {
        auto* p = new InstanceDataPlan(QLatin1String(kMaterialPlanName));
        const char* const maps[] = {"BaseColor", "MetallicRoughness", "Normal", "Occlusion", "Emissive"};
        for (const char* map : maps)
            p->addMember(InstanceDataPlan::eTexture, QLatin1String(map) + QLatin1String("Map"));
        for (const char* map : maps) {
            p->addMember(InstanceDataPlan::eVec4, QLatin1String(map) + QLatin1String("UVRow0"));
            p->addMember(InstanceDataPlan::eVec4, QLatin1String(map) + QLatin1String("UVRow1"));
        }
        for (const char* name : {"BaseColorFactor", "EmissiveFactor", "PbrFactors", "Options"})
            p->addMember(InstanceDataPlan::eVec4, QLatin1String(name));
        p->setArraySize(kMaxCommandsPerDrawable);
        InstanceDataRegistry::Instance().registerPlan(p);
        return p;
    }();
    return plan;
}

InstanceDataPlan* objectPlan()
{
    static InstanceDataPlan* plan = [] {
        auto* p = new InstanceDataPlan(QLatin1String(kObjectPlanName));
        p->addMember(InstanceDataPlan::eMat4, QStringLiteral("ModelMatrix"));
        p->addMember(InstanceDataPlan::eIVec4, QStringLiteral("SkinData"));
        p->addMember(InstanceDataPlan::eIVec4, QStringLiteral("MorphData"));
        p->setArraySize(kMaxCommandsPerDrawable);
        InstanceDataRegistry::Instance().registerPlan(p);
        return p;
    }();
    return plan;
}

QStringList variantDefines(quint64 flags)
{
    QStringList defines;
    const std::pair<quint64, const char*> names[] = {{kClearcoatFlag, "MATERIAL_CLEARCOAT"},
                                                     {kSpecularFlag, "MATERIAL_SPECULAR"},
                                                     {kSheenFlag, "MATERIAL_SHEEN"},
                                                     {kTransmissionFlag, "MATERIAL_TRANSMISSION"},
                                                     {kSpecularGlossinessFlag, "MATERIAL_SPECULAR_GLOSSINESS"},
                                                     {kOneMapCoordinateFlag, "MATERIAL_ONE_MAP_COORDINATE"},
                                                     {kWithoutNormalMapFlag, "MATERIAL_WITHOUT_NORMAL_MAP"},
                                                     {kWithoutMapsFlag, "MATERIAL_WITHOUT_MAPS"},
                                                     {kRigidFlag, "MESH_RIGID"},
                                                     {kAlphaMaskFlag, "MATERIAL_ALPHA_MASK"}};
    for (const auto& [flag, name] : names)
        if (flags & flag)
            defines << QLatin1String(name);
    return defines;
}

void parkUnsharedDeformationSamplers(ShaderProgram& program, const GPUModel& model)
{
    GLint units = 16;
    glGetIntegerv(GL_MAX_TEXTURE_IMAGE_UNITS, &units);
    // The last unit is the shadow sampler's when no shadow map is bound.
    int unit = units - 2;
    for (const char* name : {"u_DeformData", "u_MorphTargets", kExtensionSampler}) {
        const int location = program.getUniformLocation(QLatin1String(name));
        if (location >= 0 && !model.sharedTexture(QLatin1String(name)))
            program.setUniform(location, unit);
        --unit;
    }
}

} // namespace Tavren::Vyx::SceneMaterial
