#version 150
#include "TextureManager.glslh"
#include "ShadowMapManager.glslh"
#include "SceneToneMap.glslh"
#instancedata "GLTFMaterial"

// Metallic-roughness shading: punctual lights with variance shadows, and image-based light from
// a prefiltered specular cube map, the split-sum table and nine SH irradiance coefficients. The
// specular lobe is GGX with height-correlated Smith visibility, compensated for the energy that
// scattering between microfacets would reflect and a single-scattering BRDF loses.

#define MAX_LIGHTS 8
const float PI = 3.14159265358979;

in vec3 vo_Position;
in vec3 vo_Normal;
in vec4 vo_Tangent;
in vec2 vo_TexCoord0;
in vec2 vo_TexCoord1;
in vec4 vo_Color;
flat in uint vo_DrawID;

uniform vec3 u_CameraPosition;
uniform int u_LightCount;
uniform int u_LightType[MAX_LIGHTS];       // 0 point, 1 spot, 2 directional
uniform vec3 u_LightColor[MAX_LIGHTS];     // colour times intensity
uniform vec3 u_LightPosition[MAX_LIGHTS];
uniform vec3 u_LightDirection[MAX_LIGHTS]; // where the light shines to
uniform vec2 u_LightCone[MAX_LIGHTS];      // cosines of the inner and outer angles
uniform float u_LightRange[MAX_LIGHTS];
uniform int u_ShadowsEnabled;
// Non-zero while blended materials are drawn: they keep their alpha, everything else is opaque.
uniform int u_AlphaBlend;

uniform samplerCube u_PrefilteredMap;
uniform float u_PrefilteredLevels;
// Split-sum scale (r) and bias (g) of F0 at (N.V, roughness); r + g is the single-scattering
// albedo of a white metal.
uniform sampler2D u_BRDFTable;
uniform vec3 u_IrradianceSH[9];
uniform float u_EnvironmentIntensity;

out vec4 o_Colour;

vec3 irradiance(vec3 n)
{
    vec3 sum = u_IrradianceSH[0] * 0.282095;
    sum += u_IrradianceSH[1] * 0.488603 * n.y + u_IrradianceSH[2] * 0.488603 * n.z + u_IrradianceSH[3] * 0.488603 * n.x;
    sum += u_IrradianceSH[4] * 1.092548 * n.x * n.y + u_IrradianceSH[5] * 1.092548 * n.y * n.z;
    sum += u_IrradianceSH[6] * 0.315392 * (3.0 * n.z * n.z - 1.0) + u_IrradianceSH[7] * 1.092548 * n.x * n.z;
    sum += u_IrradianceSH[8] * 0.546274 * (n.x * n.x - n.y * n.y);
    return max(sum, vec3(0.0));
}

// A map's coordinates: the set it reads (row0.w), through its texture transform's rows.
vec2 mapCoordinates(vec4 row0, vec4 row1)
{
    vec3 uv = vec3(row0.w > 0.5 ? vo_TexCoord1 : vo_TexCoord0, 1.0);
    return vec2(dot(row0.xyz, uv), dot(row1.xyz, uv));
}

// The tangent frame: from the vertex tangents when there are any, else from screen-space
// derivatives of the normal map's coordinates. glTF's +Y of a normal map points up the picture,
// towards smaller v, so the derived bitangent runs against v.
mat3 tangentFrame(vec3 n, vec2 uv, bool stored)
{
    if (stored) {
        vec3 t = normalize(vo_Tangent.xyz - n * dot(n, vo_Tangent.xyz));
        return mat3(t, cross(n, t) * (vo_Tangent.w < 0.0 ? -1.0 : 1.0), n);
    }
    vec3 dp1 = dFdx(vo_Position), dp2 = dFdy(vo_Position);
    vec2 duv1 = dFdx(uv), duv2 = dFdy(uv);
    vec3 dp2perp = cross(dp2, n), dp1perp = cross(n, dp1);
    vec3 t = dp2perp * duv1.x + dp1perp * duv2.x;
    vec3 b = dp2perp * duv1.y + dp1perp * duv2.y;
    float invmax = inversesqrt(max(max(dot(t, t), dot(b, b)), 1e-20));
    return mat3(t * invmax, -b * invmax, n);
}

float ggx(float nh, float a)
{
    float a2 = a * a;
    float d = nh * nh * (a2 - 1.0) + 1.0;
    return a2 / (PI * d * d);
}

// Height-correlated Smith G2 / (4 N.V N.L), as the split-sum table integrates it.
float smithVisibility(float nv, float nl, float a)
{
    float a2 = a * a;
    return 0.5 / (nl * sqrt(nv * nv * (1.0 - a2) + a2) + nv * sqrt(nl * nl * (1.0 - a2) + a2));
}

// The prefiltered map's level for a roughness: its levels hold roughness 1 - sqrt(1 - k / (n - 1)).
float prefilteredLod(float roughness)
{
    return (u_PrefilteredLevels - 1.0) * roughness * (2.0 - roughness);
}

void main()
{
    uint id = vo_DrawID;
    vec4 options = getOptions(id);
    vec4 baseColor = getBaseColorFactor(id) *
                     managedTexture(getBaseColorMap(id), mapCoordinates(getBaseColorUVRow0(id), getBaseColorUVRow1(id)));
    if (options.y != 0.0)
        baseColor *= vo_Color;
    vec4 emissive = getEmissiveFactor(id);
    if (emissive.w >= 0.0 && baseColor.a < emissive.w)
        discard;
    float alphaOut = u_AlphaBlend != 0 ? clamp(baseColor.a, 0.0, 1.0) : 1.0;
    if (options.x != 0.0) {
        o_Colour = vec4(linearToSRGB(baseColor.rgb), alphaOut);
        return;
    }
    vec4 factors = getPbrFactors(id);
    vec4 mr = managedTexture(getMetallicRoughnessMap(id),
                             mapCoordinates(getMetallicRoughnessUVRow0(id), getMetallicRoughnessUVRow1(id)));
    float metallic = clamp(factors.x * mr.b, 0.0, 1.0);
    float roughness = clamp(factors.y * mr.g, 0.03, 1.0);
    float alpha = roughness * roughness;

    vec3 v = normalize(u_CameraPosition - vo_Position);
    // Points and lines without normals face the eye.
    vec3 n = dot(vo_Normal, vo_Normal) > 1e-12 ? normalize(vo_Normal) : v;
    if (factors.z != 0.0) {
        vec2 uv = mapCoordinates(getNormalUVRow0(id), getNormalUVRow1(id));
        mat3 frame = tangentFrame(n, uv, options.z != 0.0);
        vec3 m = managedTexture(getNormalMap(id), uv).rgb * 2.0 - 1.0;
        m.xy *= factors.z;
        n = normalize(frame * m);
    }
    // Back faces of double-sided surfaces are lit as seen, with their whole frame turned.
    if (!gl_FrontFacing)
        n = -n;
    float nv = max(dot(n, v), 1e-4);

    vec3 diffuseColor = baseColor.rgb * (1.0 - metallic);
    vec3 f0 = mix(vec3(0.04), baseColor.rgb, metallic);
    // A single-scattering lobe reflects E = r + g of the light a white metal should (a third at
    // full roughness); scaling specular by 1 + F0 (1 / E - 1) puts the multiply scattered rest
    // back, in proportion to F0 as each further bounce keeps only F of it.
    vec2 brdf = texture(u_BRDFTable, vec2(nv, roughness)).rg;
    vec3 energyCompensation = 1.0 + f0 * (1.0 / max(brdf.x + brdf.y, 0.05) - 1.0);
    vec3 colour = vec3(0.0);
    for (int i = 0; i < u_LightCount && i < MAX_LIGHTS; ++i) {
        vec3 l;
        float attenuation = 1.0;
        if (u_LightType[i] == 2) {
            l = -u_LightDirection[i];
        } else {
            vec3 toLight = u_LightPosition[i] - vo_Position;
            float d2 = max(dot(toLight, toLight), 1e-4);
            l = toLight * inversesqrt(d2);
            attenuation = 1.0 / d2;
            if (u_LightRange[i] > 0.0) {
                float r = sqrt(d2) / u_LightRange[i];
                attenuation *= clamp(1.0 - r * r * r * r, 0.0, 1.0);
            }
            if (u_LightType[i] == 1)
                attenuation *= smoothstep(u_LightCone[i].y, u_LightCone[i].x, dot(-l, u_LightDirection[i]));
        }
        float nl = dot(n, l);
        if (nl <= 0.0 || attenuation <= 0.0)
            continue;
        if (u_ShadowsEnabled != 0)
            attenuation *= shadowMapGetVisibility(uint(i), vo_Position, n, l);
        vec3 h = normalize(l + v);
        float vh = max(dot(v, h), 0.0);
        vec3 fresnel = f0 + (1.0 - f0) * pow(1.0 - vh, 5.0);
        vec3 specular = fresnel * ggx(max(dot(n, h), 0.0), alpha) * smithVisibility(nv, nl, alpha) * energyCompensation;
        vec3 diffuse = (1.0 - fresnel) * diffuseColor / PI;
        colour += (diffuse + specular) * u_LightColor[i] * nl * attenuation;
    }

    vec3 r = reflect(-v, n);
    vec3 prefiltered = textureLod(u_PrefilteredMap, r, prefilteredLod(roughness)).rgb;
    float occlusion = mix(1.0, managedTexture(getOcclusionMap(id), mapCoordinates(getOcclusionUVRow0(id), getOcclusionUVRow1(id))).r,
                          factors.w);
    vec3 ambient = diffuseColor * irradiance(n) + prefiltered * (f0 * brdf.x + brdf.y) * energyCompensation;
    colour += ambient * occlusion * u_EnvironmentIntensity;
    colour += emissive.rgb * managedTexture(getEmissiveMap(id), mapCoordinates(getEmissiveUVRow0(id), getEmissiveUVRow1(id))).rgb;
    o_Colour = vec4(toneMapToSRGB(colour), alphaOut);
}
