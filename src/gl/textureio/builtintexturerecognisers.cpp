#include "gl/textureio/internal/builtintexturerecognisers.h"

#include "gl/platform/internal/glutilities.h"
#include "gl/textureio/astcreader.h"
#include "gl/textureio/hdrreader.h"
#include "gl/textureio/ktx2reader.h"
#include "gl/textureio/ktxreader.h"

namespace Tavren::Vyx {

void registerBuiltinTextureRecognisers()
{
    // One object each for the whole process, so a repeated call lists nothing twice.
    static HDRRecogniser hdr;
    static KTXRecogniser ktx;
    static ASTCRecogniser astc;
    static KTX2Recogniser ktx2;
    RegisterTextureRecogniser(&hdr, QStringLiteral("hdr"));
    RegisterTextureRecogniser(&ktx, QStringLiteral("ktx"));
    RegisterTextureRecogniser(&astc, QStringLiteral("astc"));
    RegisterTextureRecogniser(&ktx2, QStringLiteral("ktx2"));
}

namespace {

// initializeGLFunctions() registers the readers without the platform layer knowing them.
[[maybe_unused]] const bool registeredOnInitialization = addInitializationHook(&registerBuiltinTextureRecognisers);

} // namespace

} // namespace Tavren::Vyx
