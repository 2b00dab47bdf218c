// Times what the image window does on a frame of 16 megapixels: making the picture, and painting it
// while it is dragged, with everything over it. A frame has 16 ms at 60 a second.

#include <benchmark/benchmark.h>

#include <QAction>
#include <QApplication>
#include <QImage>
#include <algorithm>
#include <random>

#include "bench/silentPort.h"
#include "desktop/fImage.h"

namespace vestrel {
namespace {

/// A solved image of noise with 500 stars of each kind.
class Scene {
 public:
    Scene() : Window(State, Quiet) {
        constexpr int side = 4096;
        PlateImage& image = State.Image;
        image.Header.NAxis1 = image.Header.NAxis2 = side;
        StartPixels(image, 32768);
        image.ImageType = ImageType::Fits;
        image.Header.BitPix = 16;
        std::mt19937 random(1);
        for (int y = 0; y < side; ++y) {
            for (int x = 0; x < side; ++x) {
                image.Pixels(x, y) = -32000 + static_cast<std::int32_t>(random() % 100);
            }
        }
        image.Header.PlateMatched = true;
        image.Header.PlateScale = 206264.8;
        image.Header.RaRef = 1;
        image.Header.DecRef = 0.5;
        const double rows[2][3] = {{0.4, 0.3, side / 2.0}, {0.3, -0.4, side / 2.0}};
        std::copy_n(&rows[0][0], 6, &image.Header.PlateTransform[0][0]);
        State.PlateStars.Resize(500);
        for (PlateStar& star : State.PlateStars) {
            star.X = static_cast<float>(random() % side);
            star.Y = static_cast<float>(random() % side);
        }
        State.ImageLoaded = true;
        Window.resize(1600, 1000);
        Window.show();
        Area = dynamic_cast<PictureArea*>(Window.centralWidget());
        for (const char* overlay : {"mnuExtracted", "mnuGrid"}) {
            Window.findChild<QAction*>(overlay)->setChecked(true);
        }
    }
    ProgramState State;
    SilentPort Quiet;
    ImageWindow Window;
    PictureArea* Area = nullptr;
};

void MakingThePicture(benchmark::State& run, Scene& scene) {
    while (run.KeepRunning()) scene.Window.LevelsChanged();
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
    Scene scene;
    const auto add = [](const char* name, auto work) {
        benchmark::RegisterBenchmark(name, work)->Unit(benchmark::kMillisecond);
    };
    add("MakingThePicture", [&](benchmark::State& run) { MakingThePicture(run, scene); });
    for (const auto& [name, scale] : {std::pair{"DraggingAFrame/whole", 0.0},
                                      {"DraggingAFrame/50%", 0.5},
                                      {"DraggingAFrame/70%", 0.7},
                                      {"DraggingAFrame/100%", 1.0},
                                      {"DraggingAFrame/400%", 4.0}}) {
        add(name, [&, scale = scale](benchmark::State& run) { DraggingAFrame(run, scene, scale); });
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
