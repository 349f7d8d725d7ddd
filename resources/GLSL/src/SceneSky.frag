#version 150
#include "SceneToneMap.glslh"
in vec3 vo_Direction;
uniform samplerCube u_Environment;
uniform float u_EnvironmentIntensity;
out vec4 o_Colour;

void main()
{
    o_Colour = vec4(toneMapToSRGB(textureLod(u_Environment, normalize(vo_Direction), 0.0).rgb * u_EnvironmentIntensity), 1.0);
}
