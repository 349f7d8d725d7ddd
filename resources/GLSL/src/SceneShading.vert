#version 150
#include "VyxUtilities.glslh"
#instancedata "GLTFObject"
#include "SceneDeform.glslh"

in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord0;
in vec2 va_TexCoord1;
in vec4 va_Color0;
in vec4 va_Tangent0;

uniform mat4 u_ViewProjection;

out vec3 vo_Position;
out vec3 vo_Normal;
out vec4 vo_Tangent;
out vec2 vo_TexCoord0;
out vec2 vo_TexCoord1;
out vec4 vo_Color;
flat out uint vo_DrawID;
#ifdef MATERIAL_TRANSMISSION
// How the model matrix scales lengths, for volume thickness given in the mesh's units.
out float vo_ModelScale;
#endif

void main()
{
    vec3 position = va_Vertex;
    vec3 normal = va_Normal;
    vec3 tangent = va_Tangent0.xyz;
#ifndef MESH_RIGID
    deformVertex(position, normal, tangent);
#endif
    mat4 model = getModelMatrix();
    mat3 linear = mat3(model);
    vec4 world = model * vec4(position, 1.0);
    vo_Position = world.xyz;
    vo_Normal = transpose(inverse(linear)) * normal;
    // A mirroring matrix turns cross(normal, tangent) around; the handedness makes up for it.
    vo_Tangent = vec4(linear * tangent, va_Tangent0.w * sign(determinant(linear)));
    vo_TexCoord0 = va_TexCoord0;
    vo_TexCoord1 = va_TexCoord1;
    vo_Color = va_Color0;
    vo_DrawID = getDrawID();
#ifdef MATERIAL_TRANSMISSION
    vo_ModelScale = (length(linear[0]) + length(linear[1]) + length(linear[2])) / 3.0;
#endif
    gl_Position = u_ViewProjection * world;
}
