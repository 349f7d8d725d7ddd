#version 150
#include "TextureManager.glslh"
#include "ShadowMapManager.glslh"
#include "SceneToneMap.glslh"
#instancedata "GLTFMaterial"
#include "SceneMaterialExtensions.glslh"

// Metallic-roughness shading: punctual lights with variance shadows, and image-based light from
// a prefiltered specular cube map, the split-sum table and nine SH irradiance coefficients. The
// specular lobe is GGX with height-correlated Smith visibility, compensated for the energy that
// scattering between microfacets would reflect and a single-scattering BRDF loses. Variants add
// a clear coat, a tinted or weighted dielectric specular, sheen, transmission through a volume,
// or specular-glossiness parameters; one reads all core maps at a single coordinate, others
// leave out normal mapping or every core map, and only masked materials may discard.

#define MAX_LIGHTS 8
const float PI = 3.14159265358979;

in vec3 vo_Position;
in vec3 vo_Normal;
in vec4 vo_Tangent;
in vec2 vo_TexCoord0;
in vec2 vo_TexCoord1;
in vec4 vo_Color;
flat in uint vo_DrawID;

// The camera's position with w = 1, or for an orthographic camera the direction towards the
// viewer with w = 0: its view rays are parallel.
uniform vec4 u_Eye;
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
#ifdef MATERIAL_SHEEN
// The directional albedo of a white sheen lobe at (N.V, sheen roughness).
uniform sampler2D u_SheenAlbedo;
#endif
#ifdef MATERIAL_TRANSMISSION
in float vo_ModelScale;
uniform mat4 u_ViewProjection;
// The opaque scene as drawn so far, tone-mapped, with mipmaps for rough transmission.
uniform sampler2D u_TransmissionMap;
uniform float u_TransmissionLevels;
#endif

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

float schlick(float f0, float f90, float cosine)
{
    return f0 + (f90 - f0) * pow(1.0 - cosine, 5.0);
}

#ifdef MATERIAL_SHEEN
// Charlie sheen distribution with a visibility term that stays finite at grazing angles.
float sheenLobe(float nh, float nl, float nv, float alpha)
{
    float invAlpha = 1.0 / alpha;
    float sin2 = max(1.0 - nh * nh, 1e-4);
    float d = (2.0 + invAlpha) * pow(sin2, 0.5 * invAlpha) / (2.0 * PI);
    return d / (4.0 * (nl + nv - nl * nv));
}
#endif

#ifdef MATERIAL_EXTENSIONS
vec4 extensionMap(int first, int map)
{
    return managedTexture(extensionMapToken(first, map),
                          mapCoordinates(extensionMapRow(first, map, 0), extensionMapRow(first, map, 1)));
}
#endif

// A core map's texel. Where every core map of the material reads the same coordinates, the
// texture manager samples its textures there once for all of them; without maps, white.
#if defined(MATERIAL_WITHOUT_MAPS)
#define mapTexel(token, row0, row1) vec4(1.0)
#elif defined(MATERIAL_ONE_MAP_COORDINATE)
#define mapTexel(token, row0, row1) managedTextureAt(token)
#else
#define mapTexel(token, row0, row1) managedTexture(token, mapCoordinates(row0, row1))
#endif

// The prefiltered map's level for a roughness: its levels hold roughness 1 - sqrt(1 - k / (n - 1)).
float prefilteredLod(float roughness)
{
    return (u_PrefilteredLevels - 1.0) * roughness * (2.0 - roughness);
}

void main()
{
    uint id = vo_DrawID;
    vec4 options = getOptions(id);
#ifdef MATERIAL_EXTENSIONS
    int ext = int(options.w);
#endif
#if defined(MATERIAL_ONE_MAP_COORDINATE) && !defined(MATERIAL_WITHOUT_MAPS)
    managedTexturesAt(mapCoordinates(getBaseColorUVRow0(id), getBaseColorUVRow1(id)));
#endif
    vec4 baseColor = getBaseColorFactor(id) * mapTexel(getBaseColorMap(id), getBaseColorUVRow0(id), getBaseColorUVRow1(id));
    if (options.y != 0.0)
        baseColor *= vo_Color;
    vec4 emissive = getEmissiveFactor(id);
#ifdef MATERIAL_ALPHA_MASK
    if (emissive.w >= 0.0 && baseColor.a < emissive.w)
        discard;
#endif
    float alphaOut = u_AlphaBlend != 0 ? clamp(baseColor.a, 0.0, 1.0) : 1.0;
    if (options.x != 0.0) {
        o_Colour = vec4(linearToSRGB(baseColor.rgb), alphaOut);
        return;
    }
    vec4 factors = getPbrFactors(id);
    vec4 mr = mapTexel(getMetallicRoughnessMap(id), getMetallicRoughnessUVRow0(id), getMetallicRoughnessUVRow1(id));
#ifdef MATERIAL_SPECULAR_GLOSSINESS
    // The map holds the specular colour and the glossiness; the base colour is the diffuse one.
    vec4 specularGlossiness = extensionParameter(ext, EXT_SPECULAR_GLOSSINESS) * mr;
    float metallic = 0.0;
    float roughness = clamp(1.0 - specularGlossiness.a, 0.03, 1.0);
#else
    float metallic = clamp(factors.x * mr.b, 0.0, 1.0);
    float roughness = clamp(factors.y * mr.g, 0.03, 1.0);
#endif
    float alpha = roughness * roughness;

    vec3 v = normalize(u_Eye.xyz - vo_Position * u_Eye.w);
    // Points and lines without normals face the eye.
    vec3 geometricNormal = dot(vo_Normal, vo_Normal) > 1e-12 ? normalize(vo_Normal) : v;
    vec3 n = geometricNormal;
#ifndef MATERIAL_WITHOUT_NORMAL_MAP
    if (factors.z != 0.0) {
        vec2 uv = mapCoordinates(getNormalUVRow0(id), getNormalUVRow1(id));
        mat3 frame = tangentFrame(n, uv, options.z != 0.0);
        vec3 m = mapTexel(getNormalMap(id), getNormalUVRow0(id), getNormalUVRow1(id)).rgb * 2.0 - 1.0;
        m.xy *= factors.z;
        n = normalize(frame * m);
    }
#endif
    // Back faces of double-sided surfaces are lit as seen, with their whole frame turned.
    if (!gl_FrontFacing)
        n = -n;
    float nv = max(dot(n, v), 1e-4);

    vec3 diffuseColor = baseColor.rgb * (1.0 - metallic);
    vec3 f0 = mix(vec3(0.04), baseColor.rgb, metallic);
    vec3 f90 = vec3(1.0);
#ifdef MATERIAL_SPECULAR
    // The dielectric reflectance from the index of refraction, tinted and weighted.
    float ior = extensionParameter(ext, EXT_TRANSMISSION).w;
    vec4 specularFactors = extensionParameter(ext, EXT_SPECULAR);
    float specularWeight = specularFactors.w * extensionMap(ext, EXT_MAP_SPECULAR).a;
    vec3 specularTint = specularFactors.rgb * extensionMap(ext, EXT_MAP_SPECULAR_COLOR).rgb;
    float iorF0 = pow((ior - 1.0) / (ior + 1.0), 2.0);
    f0 = mix(min(iorF0 * specularTint, vec3(1.0)) * specularWeight, baseColor.rgb, metallic);
    f90 = mix(vec3(specularWeight), vec3(1.0), metallic);
#else
    float ior = 1.5;
#endif
#ifdef MATERIAL_SPECULAR_GLOSSINESS
    f0 = specularGlossiness.rgb;
    diffuseColor = baseColor.rgb * (1.0 - max(f0.r, max(f0.g, f0.b)));
#endif
    // A single-scattering lobe reflects E = r + g of the light a white metal should (a third at
    // full roughness); scaling specular by 1 + F0 (1 / E - 1) puts the multiply scattered rest
    // back, in proportion to F0 as each further bounce keeps only F of it.
    vec2 brdf = texture(u_BRDFTable, vec2(nv, roughness)).rg;
    vec3 energyCompensation = 1.0 + f0 * (1.0 / max(brdf.x + brdf.y, 0.05) - 1.0);

#ifdef MATERIAL_CLEARCOAT
    vec4 clearcoatFactors = extensionParameter(ext, EXT_CLEARCOAT);
    float clearcoat = clearcoatFactors.x * extensionMap(ext, EXT_MAP_CLEARCOAT).r;
    float clearcoatRoughness = clamp(clearcoatFactors.y * extensionMap(ext, EXT_MAP_CLEARCOAT_ROUGHNESS).g, 0.03, 1.0);
    float clearcoatAlpha = clearcoatRoughness * clearcoatRoughness;
    // The coat has a normal map of its own, or lies on the surface as modelled.
    vec3 clearcoatNormal = geometricNormal;
    if (clearcoatFactors.z != 0.0) {
        vec2 uv = mapCoordinates(extensionMapRow(ext, EXT_MAP_CLEARCOAT_NORMAL, 0), extensionMapRow(ext, EXT_MAP_CLEARCOAT_NORMAL, 1));
        mat3 frame = tangentFrame(clearcoatNormal, uv, options.z != 0.0);
        vec3 m = managedTexture(extensionMapToken(ext, EXT_MAP_CLEARCOAT_NORMAL), uv).rgb * 2.0 - 1.0;
        m.xy *= clearcoatFactors.z;
        clearcoatNormal = normalize(frame * m);
    }
    if (!gl_FrontFacing)
        clearcoatNormal = -clearcoatNormal;
    float clearcoatNV = max(dot(clearcoatNormal, v), 1e-4);
    // What the coat reflects towards the eye is taken from everything under it.
    float clearcoatFresnel = clearcoat * schlick(0.04, 1.0, clearcoatNV);
    vec3 clearcoatColour = vec3(0.0);
#endif
#ifdef MATERIAL_SHEEN
    vec4 sheenFactors = extensionParameter(ext, EXT_SHEEN);
    vec3 sheenColor = sheenFactors.rgb * extensionMap(ext, EXT_MAP_SHEEN_COLOR).rgb;
    float sheenRoughness = max(sheenFactors.w * extensionMap(ext, EXT_MAP_SHEEN_ROUGHNESS).a, 0.07);
    // The sheen's directional albedo is light the base no longer gets.
    float sheenAlbedo = texture(u_SheenAlbedo, vec2(nv, sheenRoughness)).r;
    float sheenScaling = 1.0 - max(sheenColor.r, max(sheenColor.g, sheenColor.b)) * sheenAlbedo;
    vec3 sheenColour = vec3(0.0);
#endif
#ifdef MATERIAL_TRANSMISSION
    vec4 transmissionFactors = extensionParameter(ext, EXT_TRANSMISSION);
    float transmission = transmissionFactors.x * extensionMap(ext, EXT_MAP_TRANSMISSION).r;
    // Transmitted light replaces the diffuse lobe it passes through.
    vec3 opaqueDiffuse = diffuseColor;
    diffuseColor *= 1.0 - transmission;
#endif

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
#ifdef MATERIAL_CLEARCOAT
        float clearcoatNL = dot(clearcoatNormal, l);
        if ((nl <= 0.0 && clearcoatNL <= 0.0) || attenuation <= 0.0)
            continue;
#else
        if (nl <= 0.0 || attenuation <= 0.0)
            continue;
#endif
        if (u_ShadowsEnabled != 0)
            attenuation *= shadowMapGetVisibility(uint(i), vo_Position, n, l);
        vec3 h = normalize(l + v);
        vec3 radiance = u_LightColor[i] * attenuation;
#ifdef MATERIAL_CLEARCOAT
        if (clearcoatNL > 0.0) {
            float ch = max(dot(clearcoatNormal, h), 0.0);
            clearcoatColour += clearcoat * schlick(0.04, 1.0, max(dot(v, h), 0.0)) * ggx(ch, clearcoatAlpha) *
                               smithVisibility(clearcoatNV, clearcoatNL, clearcoatAlpha) * clearcoatNL * radiance;
        }
        if (nl <= 0.0)
            continue;
#endif
        float vh = max(dot(v, h), 0.0);
        vec3 fresnel = f0 + (f90 - f0) * pow(1.0 - vh, 5.0);
        vec3 specular = fresnel * ggx(max(dot(n, h), 0.0), alpha) * smithVisibility(nv, nl, alpha) * energyCompensation;
        vec3 diffuse = (1.0 - fresnel) * diffuseColor / PI;
#ifdef MATERIAL_SHEEN
        sheenColour += sheenColor * sheenLobe(max(dot(n, h), 0.0), nl, nv, sheenRoughness * sheenRoughness) * nl * radiance;
        diffuse *= sheenScaling;
        specular *= sheenScaling;
#endif
        colour += (diffuse + specular) * radiance * nl;
    }

    vec3 r = reflect(-v, n);
    vec3 prefiltered = textureLod(u_PrefilteredMap, r, prefilteredLod(roughness)).rgb;
    float occlusion = mix(1.0, mapTexel(getOcclusionMap(id), getOcclusionUVRow0(id), getOcclusionUVRow1(id)).r, factors.w);
    vec3 specularAmbient = prefiltered * (f0 * brdf.x + f90 * brdf.y) * energyCompensation;
    vec3 ambient = diffuseColor * irradiance(n) + specularAmbient;
#ifdef MATERIAL_SHEEN
    // A sheen lobe is wide enough for the irradiance to stand in for the prefiltered light.
    ambient = ambient * sheenScaling + sheenColor * sheenAlbedo * irradiance(n);
#endif
#ifdef MATERIAL_TRANSMISSION
    {
        // Through the surface along the refracted ray, out of a volume of the given thickness,
        // at the scene drawn behind it; rough surfaces blur it by reading a coarser level.
        float thickness = transmissionFactors.y * extensionMap(ext, EXT_MAP_THICKNESS).g * vo_ModelScale;
        vec3 through = normalize(refract(-v, n, 1.0 / ior)) * thickness;
        vec4 clip = u_ViewProjection * vec4(vo_Position + through, 1.0);
        vec2 screen = clip.xy / clip.w * 0.5 + 0.5;
        float lod = (u_TransmissionLevels - 1.0) * roughness * clamp(ior * 2.0 - 2.0, 0.0, 1.0);
        vec3 behind = untoneMapFromSRGB(textureLod(u_TransmissionMap, screen, lod).rgb);
        vec4 attenuationColor = extensionParameter(ext, EXT_ATTENUATION);
        if (transmissionFactors.z > 0.0)
            behind *= pow(attenuationColor.rgb, vec3(length(through) / transmissionFactors.z));
        vec3 unreflected = 1.0 - (f0 * brdf.x + f90 * brdf.y);
        colour += transmission * opaqueDiffuse * unreflected * behind;
    }
#endif
    colour += ambient * occlusion * u_EnvironmentIntensity;
    colour += emissive.rgb * mapTexel(getEmissiveMap(id), getEmissiveUVRow0(id), getEmissiveUVRow1(id)).rgb;
#ifdef MATERIAL_CLEARCOAT
    vec3 clearcoatPrefiltered = textureLod(u_PrefilteredMap, reflect(-v, clearcoatNormal), prefilteredLod(clearcoatRoughness)).rgb;
    vec2 clearcoatBRDF = texture(u_BRDFTable, vec2(clearcoatNV, clearcoatRoughness)).rg;
    clearcoatColour += clearcoat * clearcoatPrefiltered * (0.04 * clearcoatBRDF.x + clearcoatBRDF.y) * occlusion * u_EnvironmentIntensity;
    colour = colour * (1.0 - clearcoatFresnel) + clearcoatColour;
#endif
#ifdef MATERIAL_SHEEN
    colour += sheenColour;
#endif
    o_Colour = vec4(toneMapToSRGB(colour), alphaOut);
}
