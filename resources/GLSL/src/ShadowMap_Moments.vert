#version 150
uniform mat4 u_ShadowMapProjector;
uniform mat4 u_ModelMatrix;
in vec4 va_Vertex;
void main() { gl_Position = u_ShadowMapProjector * (u_ModelMatrix * va_Vertex); }
