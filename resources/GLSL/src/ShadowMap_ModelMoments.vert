#version 150
// A model's commands find their world matrix in their object data, by draw ID. The renderer
// sets the macro to the #instancedata line of the drawables' object-data plan.
#include "VyxUtilities.glslh"
#macro SHADOW_MAP_OBJECT_DATA // no object data: the program does not link
uniform mat4 u_ShadowMapProjector;
in vec4 va_Vertex;
void main() { gl_Position = u_ShadowMapProjector * (getModelMatrix() * va_Vertex); }
