#version 150
// Debug view: the direction as a colour.
in vec3 it_normal;
out vec4 o_OkuFragData[1];

void main()
{
    o_OkuFragData[0] = vec4(0.5 * normalize(it_normal) + 0.5, 1.0);
}
