#pragma once

#include <QtGlobal>

namespace Tavren::Vyx {

class GPUModel;
class ShadowMapRenderData;

// A digest of everything the shadow maps show: the projectors processLights made (so the
// lights, their cascades as fitted to the camera, and the map size) and the casters (the model,
// each drawable's flags, buffers and transform references, every transform's world matrix and
// visibility, and the model's deformation revision). Equal digests mean the maps drawn for the
// first still hold for the second. Reads world matrices: call after updateTransforms().
quint64 shadowSignature(GPUModel& model, const ShadowMapRenderData& data);

} // namespace Tavren::Vyx
