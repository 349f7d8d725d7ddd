#include "viewport/sceneviewport.h"

#include "core/logging.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/internal/passdevicecontext.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/texture.h"
#include "gl/platform/bindable.h"
#include "gl/platform/glutilities.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textures/texturemanager.h"
#include "render/gltfimporter.h"
#include "render/postprocess.h"
#include "render/sceneanimator.h"
#include "render/scenematerial.h"
#include "render/scenerenderer.h"
#include "render/visibilitybuffer.h"
#include "viewport/orbitcameracontroller.h"
#include "viewport/viewerscene.h"

#include <QElapsedTimer>
#include <QMouseEvent>
#include <QOpenGLContext>
#include <QPointer>

#include <algorithm>
#include <cmath>

namespace Tavren::Vyx {

namespace {

// Fragments one pixel may stack up before a pick retries with a larger pool.
constexpr int kPickFragments = 4096;
constexpr int kMaxPickFragments = 1 << 20;
// A press and release closer than this (logical pixels) is a click, not a drag.
constexpr int kClickSlop = 3;

// A framebuffer with a colour texture or renderbuffer and a depth renderbuffer.
std::unique_ptr<FramebufferObject> makeTarget(const QSize& size, int samples, std::unique_ptr<Texture>* colourTexture)
{
    auto target = std::make_unique<FramebufferObject>();
    AutoBinder bound(target.get());
    if (!bound.isBound())
        return nullptr;
    bool made = true;
    if (colourTexture) {
        colourTexture->reset(target->createTexture2D(GL_COLOR_ATTACHMENT0, GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE,
                                                     size.width(), size.height()));
        made = *colourTexture != nullptr;
    } else {
        made = target->createRenderbuffer(GL_COLOR_ATTACHMENT0, GL_RGBA8, size.width(), size.height(), samples);
    }
    made = made && (samples < 0 || target->createRenderbuffer(GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT24, size.width(),
                                                               size.height(), std::max(samples, 0))) &&
           target->isComplete();
    if (!made && colourTexture) {
        target->detach(GL_COLOR_ATTACHMENT0); // still bound here
        colourTexture->reset();
    }
    return made ? std::move(target) : nullptr;
}

// The programs of the model's vertex stage with the given fragment shaders.
// The contexts of the viewports that are set up, in the order they were.
QList<QPointer<QOpenGLContext>>& liveViewports()
{
    static QList<QPointer<QOpenGLContext>> contexts;
    return contexts;
}

std::unique_ptr<ShaderProgram> modelProgram(GLSLMacroProcessor& macros, const QString& fragment, VisibilityBuffer* store)
{
    auto program = std::make_unique<ShaderProgram>();
    program->setMacroProcessor(&macros);
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("SceneShading.vert"));
    program->addShader(GL_VERTEX_SHADER, SceneMaterial::objectPlan()->glslc());
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("VyxUtilities.vert"));
    program->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("VyxUtilities.glslc"));
    program->addShaderFromFile(GL_FRAGMENT_SHADER, fragment);
    if (store && !store->addShaders(program.get()))
        return nullptr;
    return program;
}

// The visibility buffer's GLSL sizes its draw IDs by an "InstanceInfo" plan; while the pick
// programs compile, one as long as a drawable's command list stands in when none is registered.
class InstanceInfoPlan
{
public:
    InstanceInfoPlan()
    {
        _plan.addMember(InstanceDataPlan::eUInt, QStringLiteral("objectID"));
        _plan.setArraySize(size_t(GLTFImporter::kMaxCommandsPerDrawable));
        InstanceDataRegistry::Instance().registerPlan(&_plan);
    }
    ~InstanceInfoPlan() { InstanceDataRegistry::Instance().unregisterPlan(_plan.name()); }
    InstanceInfoPlan(const InstanceInfoPlan&) = delete;
    InstanceInfoPlan& operator=(const InstanceInfoPlan&) = delete;

private:
    InstanceDataPlan _plan{QStringLiteral("InstanceInfo")};
};

// Takes the colour texture off a target before the texture's owner deletes it.
void detachColour(FramebufferObject* target)
{
    if (!target)
        return;
    AutoBinder bound(target);
    if (bound.isBound())
        target->detach(GL_COLOR_ATTACHMENT0);
}

bool linked(ShaderProgram* program, const char* what, const QString& output)
{
    if (!program)
        return false;
    program->setFragDataLocations({output});
    if (program->link())
        return true;
    VYX_WARNING("The viewport's %s program does not link: %s", what, qPrintable(program->log()));
    return false;
}

} // namespace

struct SceneViewport::Private
{
    ViewerScene scene;
    GPUModel* hostModel = nullptr;
    bool initialised = false;
    int fullSamples = 4;
    QColor highlight = QColor(255, 160, 40, 110);
    // Full quality: multisampled target blitted (resolving) into the widget's framebuffer.
    std::unique_ptr<FramebufferObject> fullTarget;
    int fullTargetSamples = 0;
    // Interactive quality: one sample into a texture, FXAA into a second one.
    std::unique_ptr<FramebufferObject> fastTarget, fxaaTarget;
    std::unique_ptr<Texture> fastColour, fxaaColour;
    QSize targetSize;
    QSize fastSize; // of the interactive targets
    // The renderer's shadow-map size at rest, while interactive frames draw them at half of it.
    int restShadowMapSize = 0;
    bool shadowsReduced = false;
    std::unique_ptr<PostProcess> post = std::make_unique<PostProcess>();
    GLSLMacroProcessor macros;
    bool macrosReady = false;
    std::unique_ptr<ShaderProgram> pickProgram, queryProgram, highlightProgram;
    bool pickFailed = false, highlightFailed = false;
    std::unique_ptr<VisibilityBuffer> visibility;
    int visibilityFragments = 0;
    std::unique_ptr<FramebufferObject> pickTarget;
    std::unique_ptr<Texture> pickColour;
    GLuint emptyVertexArray = 0;

    GPUModel& model() { return hostModel ? *hostModel : scene.model(); }
    GLSLMacroProcessor& drawMacros()
    {
        if (!macrosReady)
            DrawBuffers::setup(&macros);
        macrosReady = true;
        return macros;
    }
};

SceneViewport::SceneViewport(QWidget* parent)
    : QOpenGLWidget(parent)
    , _d(std::make_unique<Private>())
    , _controller(new OrbitCameraController(this))
{
    setFormat(requiredFormat());
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(32, 32);
    _controller->attachTo(this);
    connect(_controller, &OrbitCameraController::cameraChanged, this, qOverload<>(&QWidget::update));
    connect(_controller, &OrbitCameraController::interactionStarted, this, [this] { setInteractive(true); });
    connect(_controller, &OrbitCameraController::interactionFinished, this, [this] { setInteractive(false); });
}

SceneViewport::~SceneViewport()
{
    releaseGL();
    // QOpenGLWidget's destructor destroys the context later, when this object is a SceneViewport
    // no more: its signal must not reach releaseGL() then.
    if (context())
        disconnect(context(), nullptr, this, nullptr);
}

QSurfaceFormat SceneViewport::requiredFormat()
{
    QSurfaceFormat format;
    format.setRenderableType(QSurfaceFormat::OpenGL);
    format.setVersion(3, 2);
    format.setProfile(QSurfaceFormat::CoreProfile);
    format.setDepthBufferSize(24);
    format.setAlphaBufferSize(8);
    return format;
}

void SceneViewport::releaseGL()
{
    if (!_d->initialised || !context())
        return;
    makeCurrent();
    _d->scene.clear();
    _d->visibility.reset();
    _d->pickProgram.reset();
    _d->queryProgram.reset();
    _d->highlightProgram.reset();
    detachColour(_d->pickTarget.get());
    _d->pickTarget.reset();
    _d->pickColour.reset();
    detachColour(_d->fastTarget.get());
    detachColour(_d->fxaaTarget.get());
    _d->fastTarget.reset();
    _d->fxaaTarget.reset();
    _d->fastColour.reset();
    _d->fxaaColour.reset();
    _d->fullTarget.reset();
    _d->post = std::make_unique<PostProcess>();
    _renderer.reset();
    if (_d->emptyVertexArray)
        glDeleteVertexArrays(1, &_d->emptyVertexArray);
    _d->emptyVertexArray = 0;
    // The texture manager and the device context serve every viewport; the last one to go
    // releases them, the others only what was made for their own context.
    liveViewports().removeOne(context());
    if (liveViewports().isEmpty()) {
        if (TextureManager::hasInstance())
            TextureManager::Instance()->clear();
        OpenGLDeviceContext::resetContext();
    } else {
        passDeviceContext()->releaseCurrentContextObjects();
    }
    _d->initialised = false;
    doneCurrent();
}

void SceneViewport::initializeGL()
{
    if (!initializeGLFunctions()) {
        _error = QStringLiteral("The GL entry points could not be loaded");
        VYX_CRITICAL("%s", qPrintable(_error));
        return;
    }
    // Textures live in the process-wide manager, so every viewport's context must share them.
    QList<QPointer<QOpenGLContext>>& live = liveViewports();
    live.removeAll(nullptr);
    if (!live.isEmpty() && !QOpenGLContext::areSharing(context(), live.front())) {
        _error = QStringLiteral("This viewport's GL context does not share with the other viewports'; set "
                                "Qt::AA_ShareOpenGLContexts before the application object is made");
        VYX_CRITICAL("%s", qPrintable(_error));
        return;
    }
    if (live.isEmpty())
        OpenGLDeviceContext::resetContext();
    live.append(context());
    _renderer = std::make_unique<SceneRenderer>();
    _d->initialised = true;
    // The context goes with the widget's window; everything made in it must go first.
    connect(context(), &QOpenGLContext::aboutToBeDestroyed, this, &SceneViewport::releaseGL, Qt::DirectConnection);
}

bool SceneViewport::sceneLoaded(bool loaded)
{
    if (!loaded) {
        _error = _d->scene.errorString();
        doneCurrent();
        return false;
    }
    _error.clear();
    _d->hostModel = nullptr;
    _selection = ViewportPick();
    _controller->setSceneBounds(_d->scene.model().sceneBounds());
    if (_d->scene.model().getCameraCount() > 0)
        _controller->showSceneCamera(_d->scene.model(), 0);
    else
        _controller->frameAll();
    doneCurrent();
    Q_EMIT sceneChanged();
    Q_EMIT selectionChanged();
    update();
    return true;
}

bool SceneViewport::loadScene(const QString& path)
{
    if (!_d->initialised) {
        _error = QStringLiteral("The viewport has no GL context yet: show it before loading '%1'").arg(path);
        VYX_WARNING("%s", qPrintable(_error));
        return false;
    }
    makeCurrent();
    return sceneLoaded(_d->scene.load(path));
}

bool SceneViewport::loadDemoScene()
{
    if (!_d->initialised) {
        _error = QStringLiteral("The viewport has no GL context yet: show it before loading the demo scene");
        VYX_WARNING("%s", qPrintable(_error));
        return false;
    }
    makeCurrent();
    return sceneLoaded(_d->scene.loadDemo());
}

bool SceneViewport::reload()
{
    return scenePath().isEmpty() ? loadDemoScene() : loadScene(scenePath());
}

void SceneViewport::setModel(GPUModel* model)
{
    _d->hostModel = model;
    _selection = ViewportPick();
    _controller->setSceneBounds(_d->model().sceneBounds());
    _controller->frameAll();
    Q_EMIT sceneChanged();
    update();
}

GPUModel* SceneViewport::model() const
{
    return &_d->model();
}

SceneAnimator* SceneViewport::animator() const
{
    return _d->hostModel ? nullptr : _d->scene.animator();
}

bool SceneViewport::setAnimationTime(int animation, float seconds)
{
    SceneAnimator* player = animator();
    if (!player || !_d->initialised)
        return false;
    makeCurrent();
    const bool posed = player->setTime(animation, seconds);
    doneCurrent();
    update();
    return posed;
}

QString SceneViewport::scenePath() const
{
    return _d->hostModel ? QString() : _d->scene.path();
}

void SceneViewport::frameAll()
{
    _controller->setSceneBounds(_d->model().sceneBounds());
    _controller->frameAll();
}

bool SceneViewport::frameSelection()
{
    GPUModel& model = _d->model();
    if (!_selection.hit || _selection.drawable < 0 || _selection.drawable >= model.numDrawables())
        return false;
    const GPUModel::Drawable& d = model.drawable(_selection.drawable);
    const int box = d.boundingBoxRefs.value(_selection.command, GPUModel::kInvalidBoundingBoxRef);
    if (!model.isValidBoundingBox(box))
        return false;
    const QMatrix4x4 world = model.isValidTransform(_selection.transform) ? model.worldTransform(_selection.transform)
                                                                          : QMatrix4x4();
    _controller->frameBox(model.getBoundingBox(box).transformed(world));
    return true;
}

bool SceneViewport::showSceneCamera(int index)
{
    return _controller->showSceneCamera(_d->model(), index);
}

void SceneViewport::setSelection(const ViewportPick& selection)
{
    _selection = selection;
    Q_EMIT selectionChanged();
    update();
}

void SceneViewport::setHighlightColor(const QColor& colour)
{
    _d->highlight = colour;
    update();
}

void SceneViewport::setFullQualitySamples(int samples)
{
    _d->fullSamples = std::clamp(samples, 1, 16);
    update();
}

void SceneViewport::setInteractive(bool interactive)
{
    if (_interactive == interactive)
        return;
    _interactive = interactive;
    update();
}

void SceneViewport::setInteractiveScale(float scale)
{
    _interactiveScale = std::clamp(std::isfinite(scale) ? scale : 1.0f, 0.1f, 1.0f);
    if (_interactive)
        update();
}

QSize SceneViewport::interactiveSize(const QSize& full, float scale)
{
    return QSize(std::max(1, int(std::lround(full.width() * scale))), std::max(1, int(std::lround(full.height() * scale))));
}

void SceneViewport::resizeGL(int, int)
{
    _controller->setViewportSize(size());
}

void SceneViewport::mousePressEvent(QMouseEvent* event)
{
    _pressPosition = event->pos();
    QOpenGLWidget::mousePressEvent(event);
}

void SceneViewport::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton && (event->pos() - _pressPosition).manhattanLength() <= kClickSlop)
        setSelection(pick(event->pos()));
    QOpenGLWidget::mouseReleaseEvent(event);
}

void SceneViewport::paintGL()
{
    QElapsedTimer timer;
    timer.start();
    const GLuint widgetFramebuffer = defaultFramebufferObject();
    const QSize size(std::max(1, int(width() * devicePixelRatioF())), std::max(1, int(height() * devicePixelRatioF())));
    if (!_d->initialised || !_renderer) {
        glClearColor(0, 0, 0, 1);
        glClear(GL_COLOR_BUFFER_BIT);
        return;
    }
    if (!composite(size)) {
        // Whatever failed said why; a black picture is better than a stale one.
        glBindFramebuffer(GL_FRAMEBUFFER, widgetFramebuffer);
        glViewport(0, 0, size.width(), size.height());
        glClearColor(0, 0, 0, 1);
        glClear(GL_COLOR_BUFFER_BIT);
    }
    glBindFramebuffer(GL_FRAMEBUFFER, widgetFramebuffer);
    glFinish();
    _frameMilliseconds = timer.nsecsElapsed() / 1e6;
    Q_EMIT frameRendered(_frameMilliseconds);
}

bool SceneViewport::composite(const QSize& size)
{
    Private& d = *_d;
    const QSize drawn = _interactive ? interactiveSize(size, _interactiveScale) : size;
    if (_interactive && d.fastTarget && d.fastSize != drawn) {
        detachColour(d.fastTarget.get());
        detachColour(d.fxaaTarget.get());
        d.fastTarget.reset();
        d.fxaaTarget.reset();
    }
    if (d.targetSize != size) {
        d.fullTarget.reset();
        detachColour(d.fastTarget.get());
        detachColour(d.fxaaTarget.get());
        d.fastTarget.reset();
        d.fxaaTarget.reset();
        d.targetSize = size;
    }
    FramebufferObject* target = nullptr;
    if (_interactive) {
        if (!d.fastTarget)
            d.fastTarget = makeTarget(drawn, 0, &d.fastColour);
        if (!d.fxaaTarget)
            d.fxaaTarget = makeTarget(drawn, -1, &d.fxaaColour);
        d.fastSize = drawn;
        target = d.fastTarget.get();
    } else {
        if (!d.fullTarget || d.fullTargetSamples != d.fullSamples) {
            d.fullTarget = makeTarget(size, d.fullSamples > 1 ? d.fullSamples : 0, nullptr);
            d.fullTargetSamples = d.fullSamples;
        }
        target = d.fullTarget.get();
    }
    if (!target || (_interactive && !d.fxaaTarget)) {
        VYX_WARNING("Cannot make the viewport's %dx%d render targets", size.width(), size.height());
        return false;
    }
    const Camera& camera = _controller->camera();
    {
        AutoBinder bound(target);
        if (!bound.isBound())
            return false;
        glViewport(0, 0, drawn.width(), drawn.height());
        _renderer->setSamples(_interactive ? 1 : d.fullSamples);
        // A sun's cascades follow the camera and are drawn again whenever a drag moves them:
        // smaller maps while dragging, and a coarse snap that keeps them through most frames.
        if (_interactive != d.shadowsReduced) {
            if (_interactive)
                d.restShadowMapSize = _renderer->shadowMapSize();
            _renderer->setShadowMapSize(_interactive ? std::max(d.restShadowMapSize / 2, 128) : d.restShadowMapSize);
            _renderer->setCascadeSnap(_interactive ? kInteractiveCascadeSnap : 1);
            d.shadowsReduced = _interactive;
        }
        if (!_renderer->render(d.model(), camera, drawn))
            return false;
        if (_selection.hit)
            drawHighlight(drawn);
    }
    GLuint source = target->getFBO();
    if (_interactive) {
        if (!d.post->apply(PostProcess::eFXAA, d.fastColour.get(), d.fxaaColour.get()))
            return false;
        source = d.fxaaTarget->getFBO();
    }
    glBindFramebuffer(GL_READ_FRAMEBUFFER, source);
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, defaultFramebufferObject());
    glBlitFramebuffer(0, 0, drawn.width(), drawn.height(), 0, 0, size.width(), size.height(), GL_COLOR_BUFFER_BIT,
                      drawn == size ? GL_NEAREST : GL_LINEAR);
    return true;
}

bool SceneViewport::drawHighlight(const QSize& size)
{
    Private& d = *_d;
    GPUModel& model = d.model();
    if (_selection.drawable < 0 || _selection.drawable >= model.numDrawables() || d.highlightFailed)
        return false;
    if (!d.highlightProgram) {
        d.highlightProgram = modelProgram(d.drawMacros(), QStringLiteral("ViewportHighlight.frag"), nullptr);
        if (!linked(d.highlightProgram.get(), "highlight", QStringLiteral("out_FragColor"))) {
            d.highlightFailed = true;
            d.highlightProgram.reset();
            return false;
        }
    }
    ShaderProgram& program = *d.highlightProgram;
    const Camera& camera = _controller->camera();
    const QMatrix4x4 viewProjection = camera.projectionMatrix(float(size.width()) / size.height()) * camera.viewMatrix();
    if (!program.bind())
        return false;
    program.setUniform(QStringLiteral("u_ViewProjection"), QVariant(viewProjection));
    program.setUniform(QStringLiteral("u_HighlightCommand"), QVariant(unsigned(_selection.command)));
    const QColor& c = d.highlight;
    program.setUniform(QStringLiteral("u_HighlightColor"), QVariant(QVector4D(c.redF(), c.greenF(), c.blueF(), c.alphaF())));
    SceneMaterial::parkUnsharedDeformationSamplers(program, model);
    glEnable(GL_DEPTH_TEST);
    glDepthFunc(GL_LEQUAL);
    glDepthMask(GL_FALSE);
    // The same surfaces again: pulled forward so that they pass the depth test they drew.
    glEnable(GL_POLYGON_OFFSET_FILL);
    glPolygonOffset(-1.0f, -1.0f);
    glEnable(GL_BLEND);
    glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ZERO, GL_ONE);
    glDisable(GL_CULL_FACE);
    const bool drawn = model.drawDrawable(_selection.drawable, &program, nullptr, GPUModel::eWindingNoCulling, nullptr);
    glDisable(GL_BLEND);
    glDisable(GL_POLYGON_OFFSET_FILL);
    glDepthMask(GL_TRUE);
    glDepthFunc(GL_LESS);
    program.unbind();
    return drawn;
}

ViewportPick SceneViewport::pick(const QPoint& position)
{
    Private& d = *_d;
    ViewportPick result;
    if (!_d->initialised || d.pickFailed || !rect().contains(position))
        return result;
    makeCurrent();
    const auto done = [this, &result] {
        doneCurrent();
        return result;
    };
    // Without image load/store and atomic counters the nearest surface wins a depth test
    // instead: the same answer for opaque surfaces, the nearest layer for blended ones.
    const bool depthTested = !VisibilityBuffer::isSupported();
    if (!d.pickProgram && !makePickPrograms(depthTested)) {
        VYX_WARNING("Picking is off: its programs or target could not be made");
        d.pickFailed = true;
        return done();
    }
    GPUModel& model = d.model();
    // A projection that blows the pixel up to the whole one-pixel target.
    const double ratio = devicePixelRatioF();
    const QSize size(std::max(1, int(width() * ratio)), std::max(1, int(height() * ratio)));
    const float pixelX = float((position.x() + 0.5) * ratio), pixelY = float(size.height() - (position.y() + 0.5) * ratio);
    const Camera& camera = _controller->camera();
    QMatrix4x4 zoom;
    zoom.scale(float(size.width()), float(size.height()), 1.0f);
    zoom.translate(-(pixelX / size.width() * 2.0f - 1.0f), -(pixelY / size.height() * 2.0f - 1.0f), 0.0f);
    const QMatrix4x4 viewProjection =
        zoom * camera.projectionMatrix(float(size.width()) / size.height()) * camera.viewMatrix();

    model.updateTransforms();
    model.resetCulling();
    model.visibilityCull();
    model.frustumCull(viewProjection);
    GLint viewport[4];
    glGetIntegerv(GL_VIEWPORT, viewport);
    unsigned int answer[4] = {};
    {
        AutoBinder bound(d.pickTarget.get());
        glViewport(0, 0, 1, 1);
        glDisable(GL_CULL_FACE);
        glDisable(GL_BLEND);
        if (depthTested ? pickNearest(viewProjection, answer) : pickThroughVisibilityBuffer(viewProjection, answer)) {
            const int drawable = int(answer[2]) - 1, command = int(answer[1]);
            if (answer[0] == 1 && drawable >= 0 && drawable < model.numDrawables()) {
                const GPUModel::Drawable& hit = model.drawable(drawable);
                result.hit = true;
                result.drawable = drawable;
                result.command = command;
                result.transform = hit.transformRefs.value(command, GPUModel::kInvalidTransformRef);
                result.node = model.transformNames().value(result.transform);
                result.mesh = hit.drawBuffers ? hit.drawBuffers->objectName() : QString();
                for (const QString& name : model.materialNames())
                    if (model.materialInstances(name).contains({hit.id, command}))
                        result.material = name;
                result.depth = float(answer[3]) / 16777215.0f;
            }
        }
    }
    glViewport(viewport[0], viewport[1], viewport[2], viewport[3]);
    glEnable(GL_DEPTH_TEST);
    return done();
}

bool SceneViewport::makePickPrograms(bool depthTested)
{
    Private& d = *_d;
    const InstanceInfoPlan plan;
    if (!depthTested)
        d.visibility = std::make_unique<VisibilityBuffer>();
    d.pickProgram = modelProgram(d.drawMacros(),
                                 depthTested ? QStringLiteral("ViewportPickNearest.frag") : QStringLiteral("ViewportPick.frag"),
                                 d.visibility.get());
    if (!depthTested) {
        d.queryProgram = std::make_unique<ShaderProgram>();
        d.queryProgram->setMacroProcessor(&d.macros);
        d.queryProgram->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("ViewportPickQuery.vert"));
        d.queryProgram->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("ViewportPickQuery.frag"));
        d.visibility->addShaders(d.queryProgram.get());
    }
    d.pickTarget = std::make_unique<FramebufferObject>();
    AutoBinder bound(d.pickTarget.get());
    d.pickColour.reset(bound.isBound() ? d.pickTarget->createTexture2D(GL_COLOR_ATTACHMENT0, GL_RGBA32UI, GL_RGBA_INTEGER,
                                                                      GL_UNSIGNED_INT, 1, 1)
                                       : nullptr);
    if (!linked(d.pickProgram.get(), "pick", QStringLiteral("out_Pick")) || !d.pickColour ||
        (depthTested && !d.pickTarget->createRenderbuffer(GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT24, 1, 1, 1)) ||
        (!depthTested && !linked(d.queryProgram.get(), "pick query", QStringLiteral("out_Pick"))) ||
        !d.pickTarget->isComplete())
        return false;
    if (!depthTested)
        glGenVertexArrays(1, &d.emptyVertexArray);
    return true;
}

// Draws every visible drawable with the pick program, the drawable's position + 1 in
// u_PickDrawable.
void SceneViewport::drawForPicking(const QMatrix4x4& viewProjection)
{
    GPUModel& model = _d->model();
    ShaderProgram& program = *_d->pickProgram;
    program.setUniform(QStringLiteral("u_ViewProjection"), QVariant(viewProjection));
    SceneMaterial::parkUnsharedDeformationSamplers(program, model);
    const GLint drawableLocation = program.getUniformLocation(QStringLiteral("u_PickDrawable"));
    for (int i = 0; i < model.numDrawables(); ++i) {
        if (model.getFlags(i) & GPUModel::kHiddenFlag)
            continue;
        program.setUniform(drawableLocation, unsigned(i + 1));
        model.drawDrawable(i, &program, nullptr, GPUModel::eWindingNoCulling, nullptr);
    }
}

bool SceneViewport::pickNearest(const QMatrix4x4& viewProjection, unsigned int answer[4])
{
    const GLuint nothing[4] = {0, 0, 0, 0};
    glClearBufferuiv(GL_COLOR, 0, nothing);
    glClearDepth(1);
    glClear(GL_DEPTH_BUFFER_BIT);
    glEnable(GL_DEPTH_TEST);
    glDepthFunc(GL_LESS);
    glDepthMask(GL_TRUE);
    if (!_d->pickProgram->bind())
        return false;
    drawForPicking(viewProjection);
    _d->pickProgram->unbind();
    glReadPixels(0, 0, 1, 1, GL_RGBA_INTEGER, GL_UNSIGNED_INT, answer);
    return true;
}

// Every fragment of every layer is kept: a pool too small for the stack under the pixel is
// doubled and the pass drawn again; the query then finds the nearest.
bool SceneViewport::pickThroughVisibilityBuffer(const QMatrix4x4& viewProjection, unsigned int answer[4])
{
    Private& d = *_d;
    glDisable(GL_DEPTH_TEST);
    for (int fragments = std::max(d.visibilityFragments, kPickFragments); fragments <= kMaxPickFragments; fragments *= 2) {
        if (fragments != d.visibilityFragments && !d.visibility->create(1, 1, fragments))
            return false;
        d.visibilityFragments = fragments;
        ShaderProgram& program = *d.pickProgram;
        if (!d.visibility->clear() || !program.bind() || !d.visibility->bind(&program))
            return false;
        drawForPicking(viewProjection);
        program.unbind();
        d.visibility->memoryBarrier();
        if (d.visibility->fragmentCount() > unsigned(fragments))
            continue;
        ShaderProgram& query = *d.queryProgram;
        if (!query.bind() || !d.visibility->bind(&query))
            return false;
        glBindVertexArray(d.emptyVertexArray);
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
        glBindVertexArray(0);
        query.unbind();
        glReadPixels(0, 0, 1, 1, GL_RGBA_INTEGER, GL_UNSIGNED_INT, answer);
        return true;
    }
    return false;
}

} // namespace Tavren::Vyx
