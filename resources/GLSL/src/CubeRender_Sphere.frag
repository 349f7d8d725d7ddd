#version 150
// Cube face from a sphere-mapped (mirror ball) image.
uniform sampler2D s_texture;

in vec3 it_normal;
out vec4 o_OkuFragData[1];

#ifdef OKU_CUBERENDER_CONVERT_COLORSPACE
vec3 OKU_CUBERENDER_CONVERT_COLORSPACE(vec3 c);
#endif

void main()
{
    vec3 n = normalize(it_normal);
    vec3 rgb = texture(s_texture, 0.5 * n.xy + 0.5).rgb;
#ifdef OKU_CUBERENDER_CONVERT_COLORSPACE
    rgb = OKU_CUBERENDER_CONVERT_COLORSPACE(rgb);
#endif
    o_OkuFragData[0] = vec4(rgb, 1.0);
}
