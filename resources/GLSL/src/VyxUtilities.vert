#version 150
// Vertex-stage half of the utilities: with base-instance drawing the draw ID comes from
// the draw call itself instead of the u_DrawID uniform.
#ifdef DRAW_BUFFER_USE_BASE_INSTANCE
#extension GL_ARB_shader_draw_parameters : require
#include "VyxUtilities.glslh"

uint getDrawID(void)
{
    return uint(gl_BaseInstanceARB + gl_InstanceID);
}
#endif

// GLSL rejects a unit without declarations.
const int vyxUtilitiesVertexUnit = 1;
