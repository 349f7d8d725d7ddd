#include "gl/internal/builtintexturerecognisers.h"

#include "gl/astcreader.h"
#include "gl/hdrreader.h"
#include "gl/ktxreader.h"

namespace Tavren::Vyx {

void registerBuiltinTextureRecognisers()
{
    // One object each for the whole process, so a repeated call lists nothing twice.
    static HDRRecogniser hdr;
    static KTXRecogniser ktx;
    static ASTCRecogniser astc;
    RegisterTextureRecogniser(&hdr, QStringLiteral("hdr"));
    RegisterTextureRecogniser(&ktx, QStringLiteral("ktx"));
    RegisterTextureRecogniser(&astc, QStringLiteral("astc"));
}

} // namespace Tavren::Vyx
