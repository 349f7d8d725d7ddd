#version 150
// A model's commands find their world matrix in their object data, by draw ID. The renderer
// sets the macro to the #instancedata line of the drawables' object-data plan. Cut-out casters
// also hand their texture coordinates and draw ID to ShadowMap_CutOut.glslc. Object data with
// skins and morph targets (SHADOW_MAP_DEFORM) moves the vertices as the shading does, unless
// the casters drawn are known to be rigid.
#include "VyxUtilities.glslh"
#macro SHADOW_MAP_OBJECT_DATA // no object data: the program does not link
#if defined(SHADOW_MAP_DEFORM) && !defined(SHADOW_MAP_RIGID)
#include "SceneDeform.glslh"
#endif
uniform mat4 u_ShadowMapProjector;
in vec4 va_Vertex;
#ifdef SHADOW_MAP_CUT_OUT
in vec2 va_TexCoord0;
in vec2 va_TexCoord1;
out vec2 vo_TexCoord0;
out vec2 vo_TexCoord1;
flat out uint vo_DrawID;
#endif
void main() {
#ifdef SHADOW_MAP_CUT_OUT
    vo_TexCoord0 = va_TexCoord0;
    vo_TexCoord1 = va_TexCoord1;
    vo_DrawID = getDrawID();
#endif
    vec4 position = va_Vertex;
#if defined(SHADOW_MAP_DEFORM) && !defined(SHADOW_MAP_RIGID)
    vec3 normal = vec3(0.0), tangent = vec3(0.0);
    deformVertex(position.xyz, normal, tangent);
#endif
    gl_Position = u_ShadowMapProjector * (getModelMatrix() * position);
}
