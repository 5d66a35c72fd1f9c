// The media import of an IES web against the bare read and preview it wraps, and the cached
// placeholder picture. The module's sources are linked in.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "quorv/host/host.h"
#include "quorv/host/media.h"
#include "quorv/ref.h"
#include "render/photometric/ies_impl.h"
#include "render/preview/previewimageplaceholder.h"

namespace quorv {
namespace {

void StartHost() {
    static bool started = [] {
        host::HostOptions options;
        options.echoCriticalOutput = false;
        host::Host::Start(options);
        return true;
    }();
    (void)started;
}

Url WebUrl() { return Url::FromText(QUORV_BENCH_IES).GetValue(); }

// What the import adds to: reading the web and rendering its 512 x 512 preview.
void BM_IesReadAndPreviewBare(benchmark::State& state) {
    StartHost();
    const Url url = WebUrl();
    std::vector<Float32> pixels(512 * 512);
    GreyImage32 image{512, 512, 512, pixels.data()};
    for (auto _ : state) {
        IesImpl* ies = ies::Alloc(QUORV_SOURCE_LOCATION);
        if (ies::Init(ies, url.GetObject()).IsError()) std::abort();
        if (ies::GeneratePreviewImageRows(ies, image.width, image.height, ArraySetLine(&image),
                                          nullptr)
                .IsError())
            std::abort();
        ies::Free(ies);
    }
    benchmark::DoNotOptimize(pixels.data());
}

// The same through a picture load: detection, the session's calls, streams, progress, lines
// written into a host image.
void BM_IesPictureLoad(benchmark::State& state) {
    StartHost();
    const Url url = WebUrl();
    for (auto _ : state) {
        Result<ImageTextureObject*> r =
            ImageTextureInterface::Load(url.GetObject(), 0.0, nullptr, nullptr);
        if (r.IsError()) std::abort();
        ImageTextureInterface::Free(r.GetValue());
    }
}

// A placeholder after its first load: one lock and a reference.
void BM_PlaceholderGetImageCached(benchmark::State& state) {
    StartHost();
    const LiteralId id(previewimageplaceholder::ERROR);
    ImageTextureObject* first = PreviewImagePlaceholderInterface::GetImage(id);
    if (!first) {
        state.SkipWithError("no placeholder picture: build quorv_drawn_resources");
        return;
    }
    ImageTextureInterface::Free(first);
    for (auto _ : state) {
        ImageTextureObject* image = PreviewImagePlaceholderInterface::GetImage(id);
        benchmark::DoNotOptimize(image);
        RemoveReference(image);
    }
}

BENCHMARK(BM_IesReadAndPreviewBare)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_IesPictureLoad)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlaceholderGetImageCached)->ThreadRange(1, 2);

}  // namespace
}  // namespace quorv

BENCHMARK_MAIN();
