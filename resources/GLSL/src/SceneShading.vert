#version 150
#include "VyxUtilities.glslh"
#instancedata "GLTFObject"

in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord0;

uniform mat4 u_ViewProjection;

out vec3 vo_Position;
out vec3 vo_Normal;
out vec2 vo_TexCoord;
flat out uint vo_DrawID;

void main()
{
    mat4 model = getModelMatrix();
    vec4 world = model * vec4(va_Vertex, 1.0);
    vo_Position = world.xyz;
    vo_Normal = transpose(inverse(mat3(model))) * va_Normal;
    vo_TexCoord = va_TexCoord0;
    vo_DrawID = getDrawID();
    gl_Position = u_ViewProjection * world;
}
