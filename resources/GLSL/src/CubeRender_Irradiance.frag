#version 150
// The diffuse (irradiance / pi) map from blocks of the environment: each row of s_texture holds
// blocks of three texels, the red, green and blue sums of radiance * solid angle * direction / pi
// over the block's texels. The cosine is linear in the direction, so the clamped dot product is
// the block's exact share wherever the horizon does not cut it.
uniform sampler2D s_texture;

in vec3 it_normal;
out vec4 o_OkuFragData[1];

void main()
{
    vec3 n = normalize(it_normal);
    ivec2 size = textureSize(s_texture, 0);
    vec3 sum = vec3(0.0);
    for (int y = 0; y < size.y; ++y) {
        for (int x = 0; x + 2 < size.x; x += 3) {
            sum += max(vec3(dot(n, texelFetch(s_texture, ivec2(x, y), 0).xyz),
                            dot(n, texelFetch(s_texture, ivec2(x + 1, y), 0).xyz),
                            dot(n, texelFetch(s_texture, ivec2(x + 2, y), 0).xyz)),
                       vec3(0.0));
        }
    }
    o_OkuFragData[0] = vec4(sum, 1.0);
}
