#pragma once

#include "core/vyxexport.h"

#include <QColor>
#include <QOpenGLWidget>
#include <QString>

#include <memory>

namespace Tavren::Vyx {

class GPUModel;
class OrbitCameraController;
class SceneAnimator;
class SceneRenderer;

// What lies under a pixel: the nearest surface's node (transform), mesh (its DrawBuffers),
// draw command (one glTF primitive of one node) and material.
struct VYXGL_EXPORT ViewportPick
{
    bool hit = false;
    QString node;
    int transform = -1;
    QString mesh;
    int drawable = -1; // position in the model's drawing order
    int command = -1;
    QString material;
    float depth = 1.0f; // window depth, 0 near to 1 far
};

// An interactive view of a GPUModel through SceneRenderer. It draws only when something
// changed (camera, scene, selection, size); while the camera is being dragged it draws one
// sample per pixel with FXAA at a reduced size, at rest the multisampled picture `vyxgl render`
// writes. Clicking (press and release without a drag) picks and selects; the selection is tinted.
//
// Shows its own scene (loadScene, the demo) or a host's model (setModel). Loading needs the
// widget initialised (shown once); a scene that fails to load leaves the previous one. Several
// viewports may share a process when their contexts share (one window, or
// Qt::AA_ShareOpenGLContexts); a model given to setModel() is drawn by that viewport alone, as
// its vertex arrays belong to one context.
class VYXGL_EXPORT SceneViewport : public QOpenGLWidget
{
    Q_OBJECT
public:
    explicit SceneViewport(QWidget* parent = nullptr);
    ~SceneViewport() override;

    // The 3.2 core (or newer) format with depth the renderer needs.
    static QSurfaceFormat requiredFormat();

    bool loadScene(const QString& path);
    bool loadDemoScene();
    bool reload();
    // Shows a model the host keeps (and keeps alive while shown); null returns to the own scene.
    void setModel(GPUModel* model);
    GPUModel* model() const;
    // The animator of the own scene; null for a host's model or a scene without one.
    SceneAnimator* animator() const;
    // Poses the own scene (see SceneAnimator::setTime) and redraws.
    bool setAnimationTime(int animation, float seconds);
    QString scenePath() const;
    QString errorString() const { return _error; }

    OrbitCameraController* cameraController() const { return _controller; }
    // Frames the whole scene, the selection, or the scene's camera `index`.
    void frameAll();
    bool frameSelection();
    bool showSceneCamera(int index);
    // Environment, exposure and shadows; needs the context current for anything that uploads.
    SceneRenderer* renderer() const { return _renderer.get(); }

    // The surface under a point in logical widget pixels; no hit for the sky or a point outside.
    // Needs image load/store and atomic counters (GL 4.2); elsewhere it reports once and misses.
    ViewportPick pick(const QPoint& position);
    void setSelection(const ViewportPick& selection);
    ViewportPick selection() const { return _selection; }
    void setHighlightColor(const QColor& colour);

    // Multisampling at rest (default 4, as `vyxgl render`).
    void setFullQualitySamples(int samples);
    // Draws the cheaper picture until told otherwise (the controller does this while dragging):
    // one sample, FXAA, and shadow maps at half the renderer's size, which comes back at rest,
    // with a sun's cascades snapped to a grid of kInteractiveCascadeSnap texels.
    void setInteractive(bool interactive);
    static constexpr int kInteractiveCascadeSnap = 16;
    bool isInteractive() const { return _interactive; }
    // The share of each side the cheaper picture is drawn at before it is scaled up to the
    // widget (0.5 by default: a quarter of the pixels to shade while the camera moves; 1 draws it
    // at full size). Clamped to 0.1 ... 1.
    static constexpr float kDefaultInteractiveScale = 0.5f;
    void setInteractiveScale(float scale);
    float interactiveScale() const { return _interactiveScale; }
    // The size the cheaper picture of a `full`-sized widget is drawn at.
    static QSize interactiveSize(const QSize& full, float scale);
    // Milliseconds the last frame took, GPU work included.
    double lastFrameMilliseconds() const { return _frameMilliseconds; }

Q_SIGNALS:
    void sceneChanged();
    void selectionChanged();
    void frameRendered(double milliseconds);

protected:
    void initializeGL() override;
    void resizeGL(int width, int height) override;
    void paintGL() override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    struct Private;
    bool sceneLoaded(bool loaded);
    void releaseGL();
    bool drawHighlight(const QSize& size);
    bool makePickPrograms(bool depthTested);
    void drawForPicking(const QMatrix4x4& viewProjection);
    bool pickNearest(const QMatrix4x4& viewProjection, unsigned int answer[4]);
    bool pickThroughVisibilityBuffer(const QMatrix4x4& viewProjection, unsigned int answer[4]);
    bool composite(const QSize& size);

    std::unique_ptr<Private> _d;
    std::unique_ptr<SceneRenderer> _renderer;
    OrbitCameraController* _controller;
    ViewportPick _selection;
    QString _error;
    double _frameMilliseconds = 0.0;
    bool _interactive = false;
    float _interactiveScale = kDefaultInteractiveScale;
    QPoint _pressPosition;
};

} // namespace Tavren::Vyx
