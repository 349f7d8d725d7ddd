#version 150
// Fragment-stage half of the utilities: nothing stage-specific yet, kept so every program
// can link the same set of utility units. GLSL rejects a unit without declarations.
const int vyxUtilitiesFragmentUnit = 1;
