#include "render/scenematerial.h"

#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedataplan.h"

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
        p->setArraySize(kMaxCommandsPerDrawable);
        InstanceDataRegistry::Instance().registerPlan(p);
        return p;
    }();
    return plan;
}

} // namespace Tavren::Vyx::SceneMaterial
