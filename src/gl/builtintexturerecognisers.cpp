#include "gl/builtintexturerecognisers_p.h"

namespace Tavren::Vyx {

void registerBuiltinTextureRecognisers()
{
    // The file readers register themselves here as they are added to the library.
}

} // namespace Tavren::Vyx
