#version 150
// The scene's geometry as SceneShading.vert places and deforms it, with nothing else passed on:
// the floor that shading costs are measured against.
#include "VyxUtilities.glslh"
#instancedata "GLTFObject"
#include "SceneDeform.glslh"

in vec3 va_Vertex;
in vec3 va_Normal;

uniform mat4 u_ViewProjection;

out vec3 vo_Normal;

void main()
{
    vec3 position = va_Vertex;
    vec3 normal = va_Normal;
    vec3 tangent = vec3(0.0);
    deformVertex(position, normal, tangent);
    mat4 model = getModelMatrix();
    vo_Normal = mat3(model) * normal;
    gl_Position = u_ViewProjection * (model * vec4(position, 1.0));
}
