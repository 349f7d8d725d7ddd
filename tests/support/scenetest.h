#pragma once

#include "gl/drawing/camera.h"
#include "gl/model/gpumodel.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/gltfimporter.h"
#include "render/scenerenderer.h"
#include "support/gltest.h"

#include <QObject>

#include <memory>

namespace VyxTest {

// A GL test that imports glTF scenes and renders them; what it holds is released before the
// fixture's name ledger counts what is left.
class SceneTest : public GLTest
{
protected:
    void TearDown() override
    {
        model.clear();
        renderer.reset();
        manager.clear();
        GLTest::TearDown();
    }

    // The model's first camera, where its node puts it.
    Tavren::Vyx::Camera fileCamera()
    {
        Tavren::Vyx::Camera camera = model.getCamera(0);
        camera.setWorldMatrix(model.getCameraWorldSpaceMatrix(0));
        return camera;
    }

    Tavren::Vyx::SamplerTextureManager manager;
    Tavren::Vyx::GPUModel model;
    QObject lights;
    Tavren::Vyx::GLTFImporter importer{&manager};
    std::unique_ptr<Tavren::Vyx::SceneRenderer> renderer = std::make_unique<Tavren::Vyx::SceneRenderer>(&manager);
};

} // namespace VyxTest
