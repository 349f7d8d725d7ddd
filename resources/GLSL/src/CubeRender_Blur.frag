#version 150
// Blurs a cube map into a batch of outputs at once; entry i gathers the directions within
// acos(mix(1.0, 0.707, s_blur[i].value)) of the normal (at most 45 degrees).
#if !defined(OKU_CUBERENDER_BLUR_BATCH_SIZE) && defined(OKU_CUBERENDER_NDOT_BATCH_SIZE)
#define OKU_CUBERENDER_BLUR_BATCH_SIZE OKU_CUBERENDER_NDOT_BATCH_SIZE
#endif
#ifndef OKU_CUBERENDER_BLUR_BATCH_SIZE
#error Missing OKU_CUBERENDER_BLUR_BATCH_SIZE define.
#endif

// An array of structs: a plain float array did not upload correctly on some drivers.
struct OkuBlurEntry
{
    float value;
};

uniform samplerCube s_texture;
uniform OkuBlurEntry s_blur[OKU_CUBERENDER_BLUR_BATCH_SIZE];

in vec3 it_normal;
out vec4 o_OkuFragData[OKU_CUBERENDER_BLUR_BATCH_SIZE];

void main()
{
    vec3 normal = normalize(it_normal);
    vec3 centre = textureLod(s_texture, normal, 0.0).rgb;

    vec3 colors[OKU_CUBERENDER_BLUR_BATCH_SIZE];
    float counts[OKU_CUBERENDER_BLUR_BATCH_SIZE];
    float thresholds[OKU_CUBERENDER_BLUR_BATCH_SIZE];
    for (int i = 0; i < OKU_CUBERENDER_BLUR_BATCH_SIZE; ++i) {
        colors[i] = centre;
        counts[i] = 1.0;
        thresholds[i] = mix(1.0, 0.707, s_blur[i].value);
    }

    int loopCount = min(textureSize(s_texture, 0).x, 128);
    if (loopCount > 0) {
        float minThreshold = 1.0;
        for (int i = 0; i < OKU_CUBERENDER_BLUR_BATCH_SIZE; ++i)
            minThreshold = min(minThreshold, thresholds[i]);

        float stepSize = 2.0 / float(loopCount);
        for (int y = 0; y <= loopCount; ++y) {
            for (int x = 0; x <= loopCount; ++x) {
                vec3 lerp = vec3(-1.0 + stepSize * float(x), -1.0 + stepSize * float(y), 1.0);
                // The grid over one face, turned onto all six: each permutation also negates
                // the axis that holds the 1, or two faces would be sampled twice and two never.
                vec3 directions[6] = vec3[6](lerp, lerp * vec3(1.0, 1.0, -1.0), lerp.yzx,
                                             lerp.yzx * vec3(1.0, -1.0, 1.0), lerp.zxy,
                                             lerp.zxy * vec3(-1.0, 1.0, 1.0));
                for (int f = 0; f < 6; ++f) {
                    vec3 direction = normalize(directions[f]);
                    float cosine = dot(direction, normal);
                    if (cosine < minThreshold)
                        continue;
                    vec3 sampleColor = textureLod(s_texture, direction, 0.0).rgb;
                    for (int i = 0; i < OKU_CUBERENDER_BLUR_BATCH_SIZE; ++i) {
                        if (cosine >= thresholds[i]) {
                            colors[i] += sampleColor;
                            counts[i] += 1.0;
                        }
                    }
                }
            }
        }
    }

    for (int i = 0; i < OKU_CUBERENDER_BLUR_BATCH_SIZE; ++i) {
        vec3 color = counts[i] > 1.0 ? colors[i] / counts[i] : colors[i];
        o_OkuFragData[i] = vec4(color, 1.0);
    }
}
