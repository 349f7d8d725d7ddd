#include "viewport/viewerscene.h"

#include "core/logging.h"
#include "gl/model/gpumodel.h"
#include "render/demoscene.h"
#include "render/gltfimporter.h"
#include "render/punctuallight.h"
#include "render/sceneanimator.h"

namespace Tavren::Vyx {

ViewerScene::ViewerScene()
    : _model(std::make_unique<GPUModel>())
    , _lights(std::make_unique<QObject>())
{
}

ViewerScene::~ViewerScene() = default;

bool ViewerScene::load(const QString& path)
{
    return loadInto(path, nullptr);
}

bool ViewerScene::loadDemo()
{
    const QByteArray bytes = DemoScene::glb();
    return loadInto(QString(), &bytes);
}

bool ViewerScene::loadInto(const QString& path, const QByteArray* bytes)
{
    auto model = std::make_unique<GPUModel>();
    auto lights = std::make_unique<QObject>();
    GLTFImporter importer;
    const bool loaded = bytes ? importer.loadFromMemory(*bytes, QString(), *model, lights.get())
                              : importer.load(path, *model, lights.get());
    if (!loaded) {
        _error = QStringLiteral("%1: %2").arg(bytes ? QStringLiteral("demo scene") : path, importer.errorString());
        VYX_WARNING("%s", qPrintable(_error));
        return false;
    }
    addDefaultSunIfUnlit(*model, lights.get());
    // The old animator refers to the old model: it goes first.
    _animator = importer.takeAnimator();
    _model->clear();
    _model = std::move(model);
    _lights = std::move(lights);
    _path = path;
    _error.clear();
    return true;
}

void ViewerScene::clear()
{
    _animator.reset();
    _model->clear();
    _lights = std::make_unique<QObject>();
    _path.clear();
}

void ViewerScene::addDefaultSunIfUnlit(GPUModel& model, QObject* lightParent)
{
    if (model.lightCount() > 0)
        return;
    auto* sun = new PunctualLight(lightParent);
    sun->setType(ShadowMapLight::Directional);
    QMatrix4x4 frame;
    frame.lookAt(QVector3D(), QVector3D(-0.5f, -1.0f, -0.6f), QVector3D(0, 1, 0));
    frame = frame.inverted();
    frame.rotate(180, 0, 1, 0);
    sun->setTransform(frame);
    sun->intensity = 2.5f;
    model.addLight(QVariant::fromValue<QObject*>(sun), QStringLiteral("Default sun"));
}

} // namespace Tavren::Vyx
