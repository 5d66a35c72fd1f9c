// Texture lookups against OpenImageIO's TextureSystem on the same 4096 x 4096 RGBA8 picture and
// footprints, in one program and run; the first-use builds of the pyramid (MIP chain and RIP
// table together) and of the summed area table; a cached LoadTexture. The module's sources are
// linked in, as in the white-box tests, with the host's real image and job services.
#include <OpenImageIO/imageio.h>
#include <OpenImageIO/texture.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "render/textures/texture_impl.h"

namespace quorv {
namespace {

constexpr int SIZE = 4096;
constexpr size_t TABLE = 4096;  // lookup positions, a power of two

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "bench_texture: %s\n", what.c_str());
    std::exit(1);
}

// A picture with detail at every scale, written once as an uncompressed TIFF.
std::string Picture(int height) {
    const std::string path = (std::filesystem::temp_directory_path() /
                              ("quorv_bench_" + std::to_string(height) + ".tif"))
                                 .string();
    if (std::filesystem::exists(path)) return path;
    std::vector<unsigned char> px(static_cast<size_t>(SIZE) * height * 4);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < SIZE; ++x) {
            unsigned char* p = &px[(static_cast<size_t>(y) * SIZE + x) * 4];
            p[0] = static_cast<unsigned char>((x * 7) ^ (y * 13));
            p[1] = static_cast<unsigned char>((x >> 3) + (y >> 4));
            p[2] = static_cast<unsigned char>(x * y >> 9);
            p[3] = static_cast<unsigned char>(128 + ((x ^ y) & 127));
        }
    auto out = OIIO::ImageOutput::create(path);
    OIIO::ImageSpec layout(SIZE, height, 4, OIIO::TypeDesc::UINT8);
    layout.attribute("oiio:UnassociatedAlpha", 1);
    layout.attribute("compression", "none");
    if (!out || !out->open(path, layout) || !out->write_image(OIIO::TypeDesc::UINT8, px.data()) ||
        !out->close()) {
        Fail("cannot write " + path);
    }
    return path;
}

struct Positions {
    std::vector<Vector2d64> uv;
    Positions() {
        UInt32 s = 12345;
        auto next = [&s] {
            s = s * 1664525u + 1013904223u;
            return (s >> 8) / 16777216.0;
        };
        for (size_t i = 0; i < TABLE; ++i) uv.push_back({next(), next()});
    }
};
const Positions g_positions;

// Footprint of the MIP lookups: 1/512 of the picture per axis, 8 texels.
constexpr double FOOTPRINT = 1.0 / 512.0;

TextureRef& Texture() {
    static TextureRef t = [] {
        host::HostOptions options;
        options.echoCriticalOutput = false;
        host::Host::Start(options);
        Result<Url> url = Url::FromText(Picture(SIZE));
        Result<TextureImpl*> r = TextureManagementInterface::LoadTexture(
            url.GetValue().GetObject(), nullptr, 0, 0, nullptr, 0.0, nullptr);
        if (r.IsError()) Fail(ErrorToString(r.GetErrorPointer()));
        return TextureRef::Adopt(r.GetValue());
    }();
    return t;
}

// Coherent lookups: each thread walks along a row, a third of a texel a step, as a renderer's
// neighbouring rays do; the random table above misses the caches on nearly every lookup.
Vector2d64 Coherent(size_t i, int thread) {
    const double step = 1.0 / (3.0 * SIZE);
    return {static_cast<double>(i & 0xffff) * step,
            0.25 + 0.5 * thread + static_cast<double>(i >> 16) / SIZE};
}

void QuorvLookups(benchmark::State& state, TEXTUREINTERPOLATION interpolation, double footprint,
                  bool coherent = false) {
    Result<ThreadedTextureRef> s = ThreadedTextureRef::Create(Texture());
    if (s.IsError()) Fail(ErrorToString(s.GetErrorPointer()));
    const ThreadedTextureRef& sampler = s.GetValue();
    // Builds the pyramid outside the timing of the first iteration.
    sampler.Sample({0.5, 0.5}, {footprint, footprint}, TEXTUREMODE::REPEAT, TEXTUREMODE::REPEAT,
                   interpolation);
    size_t i = coherent ? 0 : static_cast<size_t>(state.thread_index()) * 977;
    double sum = 0;
    for (auto _ : state) {
        const Vector2d64 uv =
            coherent ? Coherent(i++, state.thread_index()) : g_positions.uv[i++ & (TABLE - 1)];
        const ColorA64 c = sampler.Sample(uv, {footprint, footprint}, TEXTUREMODE::REPEAT,
                                          TEXTUREMODE::REPEAT, interpolation);
        sum += c.r;
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations());
}

void BM_QuorvBilinear(benchmark::State& state) {
    QuorvLookups(state, TEXTUREINTERPOLATION::LINEAR, 0.0);
}
void BM_QuorvBicubic(benchmark::State& state) {
    QuorvLookups(state, TEXTUREINTERPOLATION::BICUBIC, 0.0);
}
void BM_QuorvMip(benchmark::State& state) {
    QuorvLookups(state, TEXTUREINTERPOLATION::MIP, FOOTPRINT);
}
void BM_QuorvRip(benchmark::State& state) {
    QuorvLookups(state, TEXTUREINTERPOLATION::RIP, FOOTPRINT);
}

OIIO::TextureSystem* Oiio() {
    static OIIO::TextureSystem* ts = [] {
        OIIO::TextureSystem* t = OIIO::TextureSystem::create(false);
        t->attribute("automip", 1);
        t->attribute("autotile", 64);
        t->attribute("max_memory_MB", 2048.0f);
        return t;
    }();
    return ts;
}

void OiioLookups(benchmark::State& state, OIIO::TextureOpt::MipMode mip, double footprint,
                 bool coherent = false) {
    OIIO::TextureSystem* ts = Oiio();
    OIIO::TextureSystem::TextureHandle* handle =
        ts->get_texture_handle(OIIO::ustring(Picture(SIZE)));
    OIIO::TextureSystem::Perthread* thread = ts->get_perthread_info();
    OIIO::TextureOpt opt;
    opt.mipmode = mip;
    opt.interpmode = OIIO::TextureOpt::InterpBilinear;
    opt.swrap = opt.twrap = OIIO::TextureOpt::WrapPeriodic;
    const float d = static_cast<float>(footprint);
    float out[4];
    // Warm the tile cache over the whole table first.
    for (const Vector2d64& p : g_positions.uv) {
        ts->texture(handle, thread, opt, static_cast<float>(p.x), static_cast<float>(p.y), d, 0, 0,
                    d, 4, out);
    }
    size_t i = coherent ? 0 : static_cast<size_t>(state.thread_index()) * 977;
    double sum = 0;
    for (auto _ : state) {
        const Vector2d64 p =
            coherent ? Coherent(i++, state.thread_index()) : g_positions.uv[i++ & (TABLE - 1)];
        if (!ts->texture(handle, thread, opt, static_cast<float>(p.x), static_cast<float>(p.y), d,
                         0, 0, d, 4, out)) {
            Fail(ts->geterror());
        }
        sum += out[0];
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations());
}

void BM_OiioBilinear(benchmark::State& state) {
    OiioLookups(state, OIIO::TextureOpt::MipModeNoMIP, 0.0);
}
void BM_OiioTrilinear(benchmark::State& state) {
    OiioLookups(state, OIIO::TextureOpt::MipModeTrilinear, FOOTPRINT);
}

// A fresh texture per iteration (loading not timed), then the first-use build.
void Build(benchmark::State& state, int height, bool summedArea) {
    Texture();  // starts the host
    Result<Url> url = Url::FromText(Picture(height));
    for (auto _ : state) {
        state.PauseTiming();
        Result<TextureRef> t = TextureRef::Load(url.GetValue());
        if (t.IsError()) Fail(ErrorToString(t.GetErrorPointer()));
        state.ResumeTiming();
        if (summedArea)
            texture::EnsureSummedAreaTable(t.GetValue().Get());
        else
            texture::EnsurePyramid(t.GetValue().Get());
        state.PauseTiming();
        const bool ready = summedArea ? t.GetValue()->summedAreaTable != nullptr
                                      : t.GetValue()->pyramidState.load() == TEXTURE_STATE_READY;
        if (!ready) Fail("build failed");
        t = Result<TextureRef>(TextureRef());
        state.ResumeTiming();
    }
}

void BM_BuildPyramid(benchmark::State& state) { Build(state, SIZE, false); }
// A 4096 x 4096 picture has too many texels for 32-bit sums: the table is timed one row less.
void BM_BuildSummedAreaTable(benchmark::State& state) { Build(state, SIZE - 1, true); }

void BM_LoadTextureCached(benchmark::State& state) {
    Texture();
    Result<Url> url = Url::FromText(Picture(SIZE));
    for (auto _ : state) {
        Result<TextureImpl*> r = TextureManagementInterface::LoadTexture(
            url.GetValue().GetObject(), nullptr, 0, 0, nullptr, 0.0, nullptr);
        benchmark::DoNotOptimize(r.GetValue());
        RemoveReference(r.GetValue());
    }
}

void BM_QuorvBilinearCoherent(benchmark::State& state) {
    QuorvLookups(state, TEXTUREINTERPOLATION::LINEAR, 0.0, true);
}
void BM_OiioBilinearCoherent(benchmark::State& state) {
    OiioLookups(state, OIIO::TextureOpt::MipModeNoMIP, 0.0, true);
}
void BM_QuorvMipCoherent(benchmark::State& state) {
    QuorvLookups(state, TEXTUREINTERPOLATION::MIP, FOOTPRINT, true);
}
void BM_OiioTrilinearCoherent(benchmark::State& state) {
    OiioLookups(state, OIIO::TextureOpt::MipModeTrilinear, FOOTPRINT, true);
}

BENCHMARK(BM_QuorvBilinear)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_OiioBilinear)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_QuorvMip)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_OiioTrilinear)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_QuorvBilinearCoherent)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_OiioBilinearCoherent)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_QuorvMipCoherent)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_OiioTrilinearCoherent)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_QuorvBicubic)->Threads(1)->UseRealTime();
BENCHMARK(BM_QuorvRip)->Threads(1)->UseRealTime();
BENCHMARK(BM_BuildPyramid)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BuildSummedAreaTable)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LoadTextureCached);

}  // namespace
}  // namespace quorv

BENCHMARK_MAIN();
