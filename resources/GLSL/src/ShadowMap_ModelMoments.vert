#version 150
// A model's commands find their world matrix in their object data, by draw ID. The renderer
// sets the macro to the #instancedata line of the drawables' object-data plan. Cut-out casters
// also hand their texture coordinates and draw ID to ShadowMap_CutOut.glslc.
#include "VyxUtilities.glslh"
#macro SHADOW_MAP_OBJECT_DATA // no object data: the program does not link
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
    gl_Position = u_ShadowMapProjector * (getModelMatrix() * va_Vertex);
}
