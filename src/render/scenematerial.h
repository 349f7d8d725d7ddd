#pragma once

#include "core/vyxexport.h"

namespace Tavren::Vyx {

class InstanceDataPlan;

// The instance data the scene shading reads for each draw command: one "GLTFMaterial" record
// (five texture tokens: BaseColorMap, MetallicRoughnessMap, NormalMap, OcclusionMap, EmissiveMap;
// three vec4s: BaseColorFactor, EmissiveFactor with the alpha cutoff of masked materials in w or
// -1, PbrFactors as metallic, roughness, normal scale, occlusion strength, where 0 means "no map")
// and one "GLTFObject" record (ModelMatrix).
namespace SceneMaterial {

// Commands per drawable: the instance-data arrays are this long.
constexpr int kMaxCommandsPerDrawable = 64;
constexpr const char* kMaterialPlanName = "GLTFMaterial";
constexpr const char* kObjectPlanName = "GLTFObject";

// Registered with the instance-data registry on first use.
VYXGL_EXPORT InstanceDataPlan* materialPlan();
VYXGL_EXPORT InstanceDataPlan* objectPlan();

} // namespace SceneMaterial

} // namespace Tavren::Vyx
