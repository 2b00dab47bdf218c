// A real host: solves through StellarSolver with the given programs. stellarSolverHost astap|local
// IMAGE SOLVER WCSINFO RA DEC WIDTH-ARCMIN prints the solution as JSON.

#include <stellarsolver.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

/// The first image of a plain 16-bit FITS file with its offset, as KStars would load it.
bool LoadFrame(const QString& path, std::vector<std::uint16_t>& pixels,
               FITSImage::Statistic& facts) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return false;
    const QByteArray bytes = file.readAll();
    int offset = 0;
    int width = 0;
    int height = 0;
    for (; offset + 80 <= bytes.size(); offset += 80) {
        const QByteArray card = bytes.mid(offset, 80);
        const int value = card.mid(10, 20).trimmed().toInt();
        if (card.startsWith("NAXIS1  ")) width = value;
        if (card.startsWith("NAXIS2  ")) height = value;
        if (card.startsWith("END ")) break;
    }
    offset = (offset / 2880 + 1) * 2880;
    const auto count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (count == 0 || bytes.size() < offset + static_cast<int>(2 * count)) return false;
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.constData()) + offset;
    for (std::size_t i = 0; i < count; ++i) {
        pixels.push_back(static_cast<std::uint16_t>((data[2 * i] << 8 | data[2 * i + 1]) ^ 0x8000));
    }
    facts.width = static_cast<std::uint16_t>(width);
    facts.height = static_cast<std::uint16_t>(height);
    facts.channels = 1;
    facts.bytesPerPixel = 2;
    constexpr std::uint32_t unsignedShort = 20;  // as cfitsio numbers it
    facts.dataType = unsignedShort;
    facts.samples_per_channel = static_cast<std::uint32_t>(count);
    facts.ndim = 2;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    std::vector<std::uint16_t> pixels;
    FITSImage::Statistic facts;
    if (arguments.size() != 8 || !LoadFrame(arguments[2], pixels, facts)) return 2;
    StellarSolver solver(facts, reinterpret_cast<const std::uint8_t*>(pixels.data()));
    const bool astap = arguments[1] == "astap";
    solver.setProperty("ProcessType", SSolver::SOLVE);
    solver.setProperty("ExtractorType", SSolver::EXTRACTOR_INTERNAL);
    solver.setProperty("SolverType",
                       astap ? SSolver::SOLVER_ASTAP : SSolver::SOLVER_LOCALASTROMETRY);
    const QTemporaryDir folder;
    solver.setProperty("BasePath", folder.path());
    ExternalProgramPaths paths;
    paths.astapBinaryPath = arguments[3];
    paths.solverPath = arguments[3];
    paths.wcsPath = arguments[4];
    paths.confPath = folder.path() + "/astrometry.cfg";
    QFile configuration(paths.confPath);
    if (configuration.open(QIODevice::WriteOnly)) configuration.write("cpulimit 60\n");
    configuration.close();
    solver.setExternalFilePaths(paths);
    const double width = arguments[7].toDouble();
    solver.setSearchScale(width * 0.9, width * 1.1, SSolver::ARCMIN_WIDTH);
    solver.setSearchPositionInDegrees(arguments[5].toDouble(), arguments[6].toDouble());
    QEventLoop loop;
    QObject::connect(&solver, &StellarSolver::finished, &loop, &QEventLoop::quit);
    QObject::connect(&solver, &StellarSolver::logOutput,
                     [](const QString& text) { std::fprintf(stderr, "%s\n", qPrintable(text)); });
    solver.start();
    loop.exec();
    if (!solver.solvingDone()) return 1;
    const FITSImage::Solution solution = solver.getSolution();
    std::printf("{\"ra\": %.9f, \"dec\": %.9f, \"scale\": %.6f}\n", solution.ra, solution.dec,
                solution.pixscale);
    return 0;
}
