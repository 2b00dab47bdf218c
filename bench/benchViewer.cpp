// Times what the image window does on frames of 24 and 60 megapixels: making the picture, and
// painting it while it is dragged, with everything over it. A frame has 16 ms at 60 a second.

#include <benchmark/benchmark.h>

#include <QAction>
#include <QApplication>
#include <QImage>
#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "bench/silentPort.h"
#include "desktop/fImage.h"

namespace vestrel {
namespace {

/// A solved image of noise with 500 stars of each kind, in a part of the sky that has many objects.
class Scene {
 public:
    Scene(int width, int height) : Window(State, Quiet) {
        PlateImage& image = State.Image;
        image.Header.NAxis1 = static_cast<std::int16_t>(width);
        image.Header.NAxis2 = static_cast<std::int16_t>(height);
        StartPixels(image, 32768, CellWidth::Narrow);
        image.ImageType = ImageType::Fits;
        image.Header.BitPix = 16;
        std::mt19937 random(1);
        std::vector<std::int32_t> row(static_cast<std::size_t>(width));
        for (int y = 0; y < height; ++y) {
            for (std::int32_t& value : row) {
                value = -32000 + static_cast<std::int32_t>(random() % 100);
            }
            image.Pixels.Store(0, y, row);
        }
        image.Header.PlateMatched = true;
        image.Header.PlateScale = 206264.8;
        // About the middle of the cluster of galaxies in Virgo.
        image.Header.RaRef = 3.27;
        image.Header.DecRef = 0.22;
        const double rows[2][3] = {{0.4, 0.3, width / 2.0}, {0.3, -0.4, height / 2.0}};
        std::copy_n(&rows[0][0], 6, &image.Header.PlateTransform[0][0]);
        State.ImageLoaded = true;
        State.Sky.Made = true;
        const auto map = SkyMap::Of(image.Header);
        PlateSolution& solution = State.Solution.emplace();
        State.PlateStars.Resize(stars);
        for (PlateStar& star : State.PlateStars) {
            star.X = static_cast<float>(random() % static_cast<unsigned>(width));
            star.Y = static_cast<float>(random() % static_cast<unsigned>(height));
            star.Flux = 1000;
            PlateStar inCatalog = star;
            inCatalog.Flux = 11.5;  // its magnitude
            const auto sky = map->SkyOf({star.X, star.Y});
            inCatalog.Ra = sky->Ra;
            inCatalog.Dec = sky->Dec;
            solution.CatalogStars.Add(inCatalog);
        }
        solution.PlateStars = State.PlateStars;
        for (std::int32_t k = 1; k <= stars; ++k)
            solution.Pairs.Add(
                {static_cast<std::int16_t>(k), static_cast<std::int16_t>(k), 1, true});
        Window.show();
        Window.resize(1600, 1000);  // larger than the screen of a platform without one
        Area = dynamic_cast<PictureArea*>(Window.centralWidget());
        for (const char* overlay : {"mnuExtracted", "mnuCatalog", "mnuMatched", "mnuMagnitudes",
                                    "mnuCompass", "mnuGrid", "mnuNames"}) {
            Window.findChild<QAction*>(overlay)->setChecked(true);
        }
        // The window makes the picture on a thread of its own, which would slow down the first
        // frames.
        while (Area->Picture.Empty()) {
            Area->repaint();
            QApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
    }
    static constexpr std::int32_t stars = 500;
    ProgramState State;
    SilentPort Quiet;
    ImageWindow Window;
    PictureArea* Area = nullptr;
};

void MakingThePicture(benchmark::State& run, Scene& scene) {
    while (run.KeepRunning()) scene.Area->Picture.BuildForScreen(scene.State.Image, false);
}

/// @param scale window pixels per image pixel; 0 shows the whole image
void DraggingAFrame(benchmark::State& run, Scene& scene, double scale) {
    scene.Area->Fit();
    if (scale > 0) scene.Area->ZoomTo(scale);
    QImage frame(scene.Area->size(), QImage::Format_RGB32);
    int step = 0;
    while (run.KeepRunning()) {
        const int way = ++step % 200 < 100 ? 3 : -3;
        scene.Area->View.Pan(way, way);
        scene.Area->OnViewChanged();
        scene.Area->render(&frame);
        benchmark::DoNotOptimize(frame.bits());
    }
}

void RunAll() {
    std::vector<std::unique_ptr<Scene>> scenes;
    for (const auto& [size, width, height] :
         {std::tuple{"24Mpx", 6000, 4000}, {"60Mpx", 9500, 6320}}) {
        Scene& scene = *scenes.emplace_back(std::make_unique<Scene>(width, height));
        const auto add = [&, size = std::string(size)](const std::string& name, auto work) {
            benchmark::RegisterBenchmark((name + "/" + size).c_str(), work)
                ->Unit(benchmark::kMillisecond)
                ->MeasureProcessCPUTime();
        };
        add("MakingThePicture", [&](benchmark::State& run) { MakingThePicture(run, scene); });
        for (const auto& [name, scale] :
             {std::pair{"whole", 0.0}, {"50%", 0.5}, {"70%", 0.7}, {"100%", 1.0}, {"400%", 4.0}}) {
            add(std::string("DraggingAFrame/") + name,
                [&, scale = scale](benchmark::State& run) { DraggingAFrame(run, scene, scale); });
        }
    }
    benchmark::RunSpecifiedBenchmarks();
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    const QApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    vestrel::RunAll();
    return 0;
}
