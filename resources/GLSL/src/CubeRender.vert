#version 150
// Renders the unit cube around the origin; the normal is the direction from the centre.
uniform mat4 u_OkuModelViewProjectionMatrix;
uniform mat3 u_OkuNormalMatrix;

in vec4 oku_Vertex;
in vec3 oku_Normal;

out vec3 it_normal;

void main()
{
    gl_Position = u_OkuModelViewProjectionMatrix * oku_Vertex;
    it_normal = u_OkuNormalMatrix * oku_Normal;
}
