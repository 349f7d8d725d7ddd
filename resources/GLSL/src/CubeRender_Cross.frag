#version 150
// Cube face from a cross-layout image; the per-face matrix maps the direction to the cell.
uniform sampler2D s_texture;
uniform mat4x2 u_OkuNormalToUvMatrix;

in vec3 it_normal;
out vec4 o_OkuFragData[1];

#ifdef OKU_CUBERENDER_CONVERT_COLORSPACE
vec3 OKU_CUBERENDER_CONVERT_COLORSPACE(vec3 c);
#endif

void main()
{
    vec2 uv = u_OkuNormalToUvMatrix * vec4(it_normal, 1.0);
    vec3 rgb = texture(s_texture, uv).rgb;
#ifdef OKU_CUBERENDER_CONVERT_COLORSPACE
    rgb = OKU_CUBERENDER_CONVERT_COLORSPACE(rgb);
#endif
    o_OkuFragData[0] = vec4(rgb, 1.0);
}
