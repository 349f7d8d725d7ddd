#version 150
// N.L-weighted convolution of a cube map into a batch of outputs; entry i stands in for one
// mip level, its sharpness exp2(13 * s_blur[i].value) the cosine power of the lobe.
#ifndef OKU_CUBERENDER_NDOT_BATCH_SIZE
#error Missing OKU_CUBERENDER_NDOT_BATCH_SIZE define.
#endif

// An array of structs: a plain float array did not upload correctly on some drivers.
struct OkuBlurEntry
{
    float value;
};

uniform samplerCube s_texture;
uniform OkuBlurEntry s_blur[OKU_CUBERENDER_NDOT_BATCH_SIZE];

in vec3 it_normal;
out vec4 o_OkuFragData[OKU_CUBERENDER_NDOT_BATCH_SIZE];

void main()
{
    vec3 normal = normalize(it_normal);
    vec3 centre = textureLod(s_texture, normal, 0.0).rgb;

    vec3 colors[OKU_CUBERENDER_NDOT_BATCH_SIZE];
    float weights[OKU_CUBERENDER_NDOT_BATCH_SIZE];
    float roughness[OKU_CUBERENDER_NDOT_BATCH_SIZE];
    for (int i = 0; i < OKU_CUBERENDER_NDOT_BATCH_SIZE; ++i) {
        colors[i] = centre;
        weights[i] = 1.0;
        roughness[i] = exp2(13.0 * s_blur[i].value);
    }

    int loopCount = min(128, textureSize(s_texture, 0).x);
    if (loopCount > 0) {
        float stepSize = 2.0 / float(loopCount);
        for (int y = 0; y <= loopCount; ++y) {
            for (int x = 0; x <= loopCount; ++x) {
                vec3 dir = normalize(vec3(-1.0 + stepSize * float(x), -1.0 + stepSize * float(y), 1.0));
                // The grid over one face, turned onto all six: each permutation also negates
                // the axis that holds the 1, or two faces would be sampled twice and two never.
                vec3 directions[6] = vec3[6](dir, dir * vec3(1.0, 1.0, -1.0), dir.yzx,
                                             dir.yzx * vec3(1.0, -1.0, 1.0), dir.zxy,
                                             dir.zxy * vec3(-1.0, 1.0, 1.0));
                for (int f = 0; f < 6; ++f) {
                    vec3 L = directions[f];
                    float nDotL = dot(normal, L);
                    // Back-facing directions add nothing: skip them before reading the texture.
                    if (nDotL <= 0.0)
                        continue;
                    vec3 sampleColor = textureLod(s_texture, L, 0.0).rgb;
                    for (int i = 0; i < OKU_CUBERENDER_NDOT_BATCH_SIZE; ++i) {
                        float w = max(0.0, pow(nDotL, roughness[i]));
                        colors[i] += sampleColor * w;
                        weights[i] += w;
                    }
                }
            }
        }
    }

    for (int i = 0; i < OKU_CUBERENDER_NDOT_BATCH_SIZE; ++i) {
        vec3 color = weights[i] > 0.0 ? colors[i] / weights[i] : colors[i];
        o_OkuFragData[i] = vec4(color, 1.0);
    }
}
