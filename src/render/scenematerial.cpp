#include "render/scenematerial.h"

#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedataplan.h"

namespace Tavren::Vyx::SceneMaterial {

InstanceDataPlan* materialPlan()
{
    static InstanceDataPlan* plan = [] {
        auto* p = new InstanceDataPlan(QLatin1String(kMaterialPlanName));
        for (const char* name : {"BaseColorMap", "MetallicRoughnessMap", "NormalMap", "OcclusionMap", "EmissiveMap"})
            p->addMember(InstanceDataPlan::eTexture, QLatin1String(name));
        for (const char* name : {"BaseColorFactor", "EmissiveFactor", "PbrFactors"})
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
