#pragma once

#include "core/vyxexport.h"

#include <QString>
#include <QStringList>

#include <memory>

namespace Tavren::Vyx {

// Plays the animations of a glTF scene on the GPUModel that GLTFImporter filled with it, and
// keeps its skins and morph targets posed: joint matrices and morph weights live in a texture
// buffer the model shares with its programs ("u_DeformData"), the morph target deltas in
// another ("u_MorphTargets").
//
// setTime() writes the animated nodes' transforms and weights and uploads only the joint
// matrices and weights that changed. The first time an animation plays, the boxes of the
// skinned and morphed meshes grow to hold every pose it reaches (sampled along its timeline), so
// culling and shadow fitting never cut off a moving limb. Made by GLTFImporter::load() and valid
// while that model keeps what the load put into it; needs the model's context current.
class VYXGL_EXPORT SceneAnimator
{
public:
    struct Private;
    explicit SceneAnimator(std::unique_ptr<Private> d);
    ~SceneAnimator();
    SceneAnimator(const SceneAnimator&) = delete;
    SceneAnimator& operator=(const SceneAnimator&) = delete;

    int animationCount() const;
    // The file's name, else "animation<N>".
    QString animationName(int animation) const;
    // The last key time of the animation's playable channels, in seconds.
    float duration(int animation) const;
    int channelCount(int animation) const;
    // The animation with that name, else the one with that number; -1 when there is none.
    int findAnimation(const QString& nameOrNumber) const;
    // Channels left out when an animation was first played, with the reason.
    QStringList warnings() const;

    // Poses the model at `seconds` into one animation, or into every animation at once with -1,
    // each clamped to its own key range. Nodes the previous animation moved and this one does
    // not go back to rest. False for an unknown animation or a failed upload.
    bool setTime(int animation, float seconds);
    // Every node, joint and weight at rest.
    bool reset();

private:
    std::unique_ptr<Private> _d;
};

} // namespace Tavren::Vyx
