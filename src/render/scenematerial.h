#pragma once

#include "core/vyxexport.h"

#include <QStringList>
#include <QtGlobal>

namespace Tavren::Vyx {

class GPUModel;
class InstanceDataPlan;
class ShaderProgram;

// The instance data the scene shading reads for each draw command: one "GLTFMaterial" record
// and one "GLTFObject" record (ModelMatrix, and the SkinData and MorphData ivec4s that say where
// the command's joint matrices, morph deltas and weights lie; zeros for a rigid mesh, see
// SceneDeform.glslh).
//
// "GLTFMaterial": five texture tokens (BaseColorMap, MetallicRoughnessMap, NormalMap,
// OcclusionMap, EmissiveMap); for each map two vec4s <Map>UVRow0 and <Map>UVRow1 holding the rows
// of its texture transform in xyz, with the texture coordinate set it reads in UVRow0.w; and
// the vec4s BaseColorFactor, EmissiveFactor (times the emissive strength, with the alpha cutoff
// of masked materials in w or -1), PbrFactors (metallic, roughness, normal scale, occlusion
// strength, where 0 means "no map") and Options (x: unlit, y: the vertex colours "va_Color0" are
// multiplied in, z: the vertex array has tangents "va_Tangent0", w: the first texel of the
// material's extension parameters). Specular-glossiness materials keep their specular-glossiness map in
// MetallicRoughnessMap.
//
// Vertex attributes: "va_Vertex" (vec3), "va_Normal" (vec3), "va_TexCoord0" and "va_TexCoord1"
// (vec2, glTF's top-left origin, which matches how images are uploaded), "va_Color0" (vec4) and
// "va_Tangent0" (vec4, handedness in w), "va_Joints0"/"va_Weights0" and "va_Joints1"/"va_Weights1"
// (vec4, joint numbers as floats), each only where some primitive of the mesh has it.
namespace SceneMaterial {

// Commands per drawable: the instance-data arrays are this long. A material record is 272 bytes,
// so the table stays within the 16 KB of uniform block that every GL 3.2 context offers.
constexpr int kMaxCommandsPerDrawable = 48;

// Drawable flags the importer sets and the renderer selects passes by.
constexpr quint64 kDoubleSidedFlag = quint64(1) << 0;
constexpr quint64 kAlphaMaskFlag = quint64(1) << 1;
// Equal to GPUModel::kSortBackToFrontFlag, so a view given to the draw sorts these commands.
constexpr quint64 kAlphaBlendFlag = quint64(1) << 62;
// Points and lines: never culled, no normal map.
constexpr quint64 kPointsOrLinesFlag = quint64(1) << 2;
// The material extensions a drawable's commands use. Each combination is drawn by a program
// variant compiled for it, so materials without any keep the plain metal-roughness program.
constexpr quint64 kClearcoatFlag = quint64(1) << 8;
constexpr quint64 kSpecularFlag = quint64(1) << 9;
constexpr quint64 kSheenFlag = quint64(1) << 10;
// Drawn after the opaque scene, which they show through.
constexpr quint64 kTransmissionFlag = quint64(1) << 11;
constexpr quint64 kSpecularGlossinessFlag = quint64(1) << 12;
// Every core map of the drawable's materials reads the same coordinates (set and transform), so
// the texture manager can sample the textures at them once for all maps.
constexpr quint64 kOneMapCoordinateFlag = quint64(1) << 13;
// None of the drawable's materials has a normal map, so no tangent frame is needed.
constexpr quint64 kWithoutNormalMapFlag = quint64(1) << 14;
// Nor any other core map: the factors alone give the material.
constexpr quint64 kWithoutMapsFlag = quint64(1) << 15;
// No skin or morph target moves the drawable's vertices: the vertex stage leaves deformation out.
constexpr quint64 kRigidFlag = quint64(1) << 16;
// The flags that choose the program variant. Masked materials have one of their own because a
// fragment shader that may discard cannot have its depth tested before it runs, and on software
// rasterisers that early test is what spares hidden fragments their shading.
constexpr quint64 kVariantFlags = kClearcoatFlag | kSpecularFlag | kSheenFlag | kTransmissionFlag |
    kSpecularGlossinessFlag | kOneMapCoordinateFlag | kWithoutNormalMapFlag | kWithoutMapsFlag | kRigidFlag |
    kAlphaMaskFlag;
// The defines that select the variant for some flags ("MATERIAL_CLEARCOAT", ...).
VYXGL_EXPORT QStringList variantDefines(quint64 flags);

// Where the extension parameters live: a texture buffer the model shares, read by variants
// through this sampler, with kExtensionTexels RGBA32F texels per material starting at the texel
// the material record's Options.w names. Texels 0-5: clearcoat (factor, roughness, normal
// scale or 0 without a normal map), specular (colour, factor), sheen (colour, roughness),
// transmission (factor, thickness, attenuation distance or 0, index of refraction),
// attenuation colour, specular-glossiness (specular colour, glossiness). Then three texels per map, in
// ExtensionMap order: the texture token as four 16-bit parts, and the two texture-transform
// rows as in the material record.
constexpr const char* kExtensionSampler = "u_MaterialExtensions";
enum ExtensionMap {
    eClearcoatMap,
    eClearcoatRoughnessMap,
    eClearcoatNormalMap,
    eSpecularMap,
    eSpecularColorMap,
    eSheenColorMap,
    eSheenRoughnessMap,
    eTransmissionMap,
    eThicknessMap,
    eExtensionMapCount
};
constexpr int kExtensionParameterTexels = 6;
constexpr int kExtensionTexels = kExtensionParameterTexels + 3 * eExtensionMapCount;

constexpr const char* kMaterialPlanName = "GLTFMaterial";
constexpr const char* kObjectPlanName = "GLTFObject";

// Registered with the instance-data registry on first use.
VYXGL_EXPORT InstanceDataPlan* materialPlan();
VYXGL_EXPORT InstanceDataPlan* objectPlan();

// Points the bound program's deformation and extension samplers ("u_DeformData",
// "u_MorphTargets", "u_MaterialExtensions") that the model does not share at units of their own
// near the top, as a sampler of another type on
// the same unit would fail the draw even where no command reads them.
VYXGL_EXPORT void parkUnsharedDeformationSamplers(ShaderProgram& program, const GPUModel& model);

} // namespace SceneMaterial

} // namespace Tavren::Vyx
