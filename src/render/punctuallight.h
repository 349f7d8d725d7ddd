#pragma once

#include "core/vyxexport.h"
#include "gl/shadows/shadowmapmanager.h"

#include <QVector3D>

namespace Tavren::Vyx {

// A punctual light as a scene file describes it; the shadow code reads it as a ShadowMapLight.
// Radiometry follows the file: intensity in candela for point and spot lights, lux for the sun.
class VYXGL_EXPORT PunctualLight : public ShadowMapLight
{
    Q_OBJECT
public:
    explicit PunctualLight(QObject* parent = nullptr);
    QVector3D color{1, 1, 1};
    float intensity = 1.0f;
    float range = 0.0f;           // 0: unlimited
    float innerConeAngle = 0.0f;  // radians; the outer angle is spotCutoff()
};

} // namespace Tavren::Vyx
