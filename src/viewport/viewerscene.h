#pragma once

#include "core/vyxexport.h"

#include <QObject>
#include <QString>

#include <memory>

namespace Tavren::Vyx {

class GPUModel;
class SceneAnimator;

// A glTF scene as a viewer holds it: the model, the lights made for it and the animator that
// poses it. load() reads into a fresh set and swaps it in only on success, so a file that
// fails leaves the scene that was there. Needs the model's context current for load, loadDemo
// and clear.
class VYXGL_EXPORT ViewerScene
{
public:
    ViewerScene();
    ~ViewerScene();
    ViewerScene(const ViewerScene&) = delete;
    ViewerScene& operator=(const ViewerScene&) = delete;

    bool load(const QString& path);
    // The built-in demo scene.
    bool loadDemo();
    // Deletes the model's drawables; empty afterwards.
    void clear();

    GPUModel& model() { return *_model; }
    SceneAnimator* animator() const { return _animator.get(); }
    // Empty for the demo scene.
    QString path() const { return _path; }
    QString errorString() const { return _error; }

    // A scene without lights gets a sun from above the camera's right shoulder, as `vyxgl render`
    // lights one; the light is a child of lightParent.
    static void addDefaultSunIfUnlit(GPUModel& model, QObject* lightParent);

private:
    bool loadInto(const QString& path, const QByteArray* bytes);

    std::unique_ptr<GPUModel> _model;
    std::unique_ptr<QObject> _lights;
    std::unique_ptr<SceneAnimator> _animator;
    QString _path;
    QString _error;
};

} // namespace Tavren::Vyx
