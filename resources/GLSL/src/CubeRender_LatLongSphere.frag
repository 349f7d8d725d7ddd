#version 150
// Cube face from a latitude-longitude image.
uniform sampler2D s_texture;

in vec3 it_normal;
out vec4 o_OkuFragData[1];

#ifdef OKU_CUBERENDER_CONVERT_COLORSPACE
vec3 OKU_CUBERENDER_CONVERT_COLORSPACE(vec3 c);
#endif

const float kPi = 3.14159265358979323846;

void main()
{
    vec3 ray = normalize(it_normal);
    float phi = acos(clamp(ray.y, -1.0, 1.0));
    vec2 xz = ray.xz;
    float xzLength = length(xz);
    // Straight up or down the longitude is arbitrary.
    xz = xzLength > 0.0 ? xz / xzLength : vec2(1.0, 0.0);
    float theta = acos(clamp(xz.x, -1.0, 1.0));
    if (xz.y < 0.0)
        theta = 2.0 * kPi - theta;
    vec3 rgb = texture(s_texture, vec2(theta / (2.0 * kPi), phi / kPi)).rgb;
#ifdef OKU_CUBERENDER_CONVERT_COLORSPACE
    rgb = OKU_CUBERENDER_CONVERT_COLORSPACE(rgb);
#endif
    o_OkuFragData[0] = vec4(rgb, 1.0);
}
