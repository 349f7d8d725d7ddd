// vyxgl convert: an environment picture to a cube map and its image-based-lighting companions.
#include "commands.h"

#include "gl/environment/okuimagecubemaputils.h"
#include "gl/objects/texture.h"
#include "gl/platform/headlesscontext.h"
#include "gl/textureio/ktxwriter.h"
#include "gl/textureio/textureio.h"
#include "gl/textureio/textureutilities.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTextStream>

#include <cstdio>
#include <memory>
#include <unistd.h>

using namespace Tavren::Vyx;
namespace Utils = OkuImageCubemapUtils;

namespace {

void printConvertUsage()
{
    std::printf("usage: vyxgl convert [ENVMAP] [--type latlong|cross|sphere] [--size N] [-o cube.ktx]\n"
                "                     [--irradiance FILE] [--prefiltered FILE --levels N] [--brdf FILE] [--sh FILE]\n"
                "Makes only what is asked for, at least one of:\n"
                "  -o FILE         the cube map as KTX\n"
                "  --irradiance F  the diffuse (irradiance / pi) cube map as KTX, 32 texels a face\n"
                "  --prefiltered F the GGX-prefiltered specular cube map as KTX, --levels N mips\n"
                "                  (default 6; level k holds roughness 1 - sqrt(1 - k / (N - 1)))\n"
                "  --brdf F        the split-sum BRDF table (128 x 128, RG16F: scale and bias of F0,\n"
                "                  N.V across, roughness up) as KTX; needs no ENVMAP\n"
                "  --sh F          nine SH irradiance coefficients as text, one RGB triple a line\n"
                "  --type          layout of ENVMAP (default latlong)\n"
                "  --size N        cube face size in texels (default 512)\n");
}

// One line per step on stderr: a bar that fills in place on a terminal, plain
// lines otherwise.
class Progress
{
public:
    Progress(int steps) : _steps(steps), _terminal(isatty(2)) {}
    void begin(const char* what)
    {
        _what = what;
        _timer.start();
        if (_terminal)
            std::fprintf(stderr, "\r[%-20s] %d/%d %s...", QByteArray(20 * _done / _steps, '#').constData(), _done + 1,
                         _steps, what);
        else
            std::fprintf(stderr, "vyxgl convert: step %d/%d: %s\n", _done + 1, _steps, what);
    }
    void end()
    {
        ++_done;
        if (_terminal)
            std::fprintf(stderr, "\r[%-20s] %d/%d %s: %lld ms\n", QByteArray(20 * _done / _steps, '#').constData(),
                         _done, _steps, _what, _timer.elapsed());
    }

private:
    int _steps, _done = 0;
    bool _terminal;
    const char* _what = "";
    QElapsedTimer _timer;
};

int fail(const QString& message)
{
    std::fprintf(stderr, "\nvyxgl convert: %s\n", qPrintable(message));
    return 1;
}

bool saveKTX(Texture* texture, const QString& path)
{
    return texture && SaveTextureAsKTX(texture, path);
}

} // namespace

int runConvert(int argc, char** argv)
{
    QString input, output, irradiance, prefiltered, brdf, sh, typeName = QStringLiteral("latlong");
    int size = 512, levels = 6;
    for (int i = 0; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        if (isHelp(argv[i])) {
            printConvertUsage();
            return 0;
        }
        if (!arg.startsWith(QLatin1Char('-')) && input.isEmpty()) {
            input = arg;
            continue;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "vyxgl convert: %s needs a value (see vyxgl convert --help)\n", argv[i]);
            return 2;
        }
        const QString value = QString::fromLocal8Bit(argv[++i]);
        bool ok = true;
        if (arg == QLatin1String("-o"))
            output = value;
        else if (arg == QLatin1String("--type"))
            typeName = value;
        else if (arg == QLatin1String("--size"))
            ok = (size = value.toInt(&ok)) >= 4 && size <= 4096 && ok;
        else if (arg == QLatin1String("--levels"))
            ok = (levels = value.toInt(&ok)) >= 1 && levels <= 12 && ok;
        else if (arg == QLatin1String("--irradiance"))
            irradiance = value;
        else if (arg == QLatin1String("--prefiltered"))
            prefiltered = value;
        else if (arg == QLatin1String("--brdf"))
            brdf = value;
        else if (arg == QLatin1String("--sh"))
            sh = value;
        else
            ok = false;
        if (!ok) {
            std::fprintf(stderr, "vyxgl convert: bad argument '%s %s' (see vyxgl convert --help)\n", argv[i - 1],
                         argv[i]);
            return 2;
        }
    }
    const Utils::OkuImageCubemapSourceType type = typeName == QLatin1String("latlong")  ? Utils::SourceLatLong
                                                  : typeName == QLatin1String("cross")  ? Utils::SourceCross
                                                  : typeName == QLatin1String("sphere") ? Utils::SourceSphere
                                                                                        : Utils::SourceNone;
    const bool needsCube = !output.isEmpty() || !irradiance.isEmpty() || !prefiltered.isEmpty() || !sh.isEmpty();
    if ((!needsCube && brdf.isEmpty()) || (needsCube && input.isEmpty()) || type == Utils::SourceNone) {
        std::fprintf(stderr, "vyxgl convert: needs at least one of -o, --irradiance, --prefiltered, --brdf and --sh,\n"
                             "ENVMAP for all but --brdf, and a type of latlong, cross or sphere\n");
        return 2;
    }
    return runWithContext([&] {
        Progress progress(needsCube + !output.isEmpty() + !irradiance.isEmpty() + !prefiltered.isEmpty() +
                          !brdf.isEmpty() + !sh.isEmpty());
        std::unique_ptr<Texture> cube;
        if (needsCube) {
            progress.begin("loading and converting to a cube map");
            std::unique_ptr<Texture> source(LoadTextureFromFile(input, TextureFileInfo()));
            Texture* raw = source.release();
            if (!raw || (type == Utils::SourceLatLong && !FlipY(raw)))
                return fail(QStringLiteral("cannot load '%1'").arg(input));
            source.reset(raw);
            cube.reset(Utils::createGLCubemapFromTexture(source.get(), type, unsigned(size), Utils::ColorSpaceLinear));
            if (!cube)
                return fail(QStringLiteral("cannot convert '%1' to a cube map").arg(input));
            progress.end();
        }
        if (!output.isEmpty()) {
            progress.begin("writing the cube map");
            if (!saveKTX(cube.get(), output))
                return fail(QStringLiteral("cannot write '%1'").arg(output));
            progress.end();
        }
        if (!irradiance.isEmpty()) {
            progress.begin("diffuse irradiance");
            std::unique_ptr<Texture> map(Utils::createIrradianceCubemapFromGLCubemap(cube.get(), 32));
            if (!saveKTX(map.get(), irradiance))
                return fail(QStringLiteral("cannot make or write '%1'").arg(irradiance));
            progress.end();
        }
        if (!prefiltered.isEmpty()) {
            progress.begin("prefiltered specular map");
            std::unique_ptr<Texture> map(
                Utils::createPrefilteredEnvMapFromGLCubemap(cube.get(), unsigned(std::min(size, 256)), levels));
            if (!saveKTX(map.get(), prefiltered))
                return fail(QStringLiteral("cannot make or write '%1'").arg(prefiltered));
            progress.end();
        }
        if (!brdf.isEmpty()) {
            progress.begin("BRDF table");
            std::unique_ptr<Texture> table(Utils::createPreintegratedBRDFTable(128));
            if (!saveKTX(table.get(), brdf))
                return fail(QStringLiteral("cannot make or write '%1'").arg(brdf));
            progress.end();
        }
        if (!sh.isEmpty()) {
            progress.begin("SH irradiance");
            const Utils::IrradianceSH coefficients = Utils::computeIrradianceSHFromGLCubemap(cube.get());
            QFile file(sh);
            if (!coefficients.valid || !file.open(QIODevice::WriteOnly | QIODevice::Text))
                return fail(QStringLiteral("cannot make or write '%1'").arg(sh));
            QTextStream out(&file);
            for (const QVector3D& c : coefficients.coefficients)
                out << c.x() << ' ' << c.y() << ' ' << c.z() << '\n';
            progress.end();
        }
        return 0;
    });
}
