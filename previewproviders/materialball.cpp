// The material ball provider: a sphere on a checker floor under a procedural sky, path traced
// through the render module's perspective camera and legacy BSDF classes, reached by id.
//
// Scene, y up: the ball is the unit sphere around (0, 1, 0); the floor is the plane y = 0 with
// squares of one unit, reflectance 0.7 and 0.2, shaded by the Lambert class; a ray that leaves
// the scene sees the sky. Both hits are analytic. Shading is two-sided: the frame's normal is
// turned towards the outgoing direction, so a transmitting class sends paths through the ball
// and they leave it again through the same rule (a preview, not a refraction study).
//
// Determinism: the random numbers of a path are a hash of (seed, level, pixel, sample index,
// dimension), summed per pixel in sample order; rows are spread over the host's parallel loop
// but no pixel depends on another, so the thread count and the partitions change no bit.
// Iterations render into a scratch buffer that replaces the committed state only when the job
// was not cancelled by then: a paused iteration is computed again from the same state.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <new>
#include <vector>

#include "previewproviders/previewproviders.h"
#include "quorv/classes.h"
#include "quorv/jobs.h"
#include "quorv/parallel.h"
#include "render/cameras/camera.h"
#include "render/legacy_renderers/bsdf_legacy.h"

namespace quorv::previewproviders {

std::atomic<Int> g_liveProviders{0};

Int LiveProviderCount() { return g_liveProviders.load(); }

namespace {
std::atomic<Int> g_rowsBegun{0};
}  // namespace

Int BallRowsBegun() { return g_rowsBegun.load(std::memory_order_relaxed); }

Vector2i64 BallIterationSize(Vector2i64 size, Int index) {
    const Int divisor = index >= 3 ? 1 : Int(8) >> index;
    return {std::max<Int>(size.x / divisor, 1), std::max<Int>(size.y / divisor, 1)};
}

Int BallNewSamples(Int base, Int index) { return index <= 3 ? base << index : base << (index - 1); }

namespace {

constexpr const char* PERSPECTIVE_CAMERA = "net.quorv.render.cameraclass.perspective";
constexpr const char* CAMERA_REGISTRY = "net.quorv.render.registry.cameraclasses";
constexpr const char* CAMERA_RESOLUTION_KEY =
    "net.quorv.render.camera.cameraparameters.screenresolution";
constexpr const char* CAMERA_MATRIX_KEY = "net.quorv.render.camera.cameraparameters.matrix";
constexpr const char* CAMERA_FOV_KEY = "net.quorv.render.camera.cameraparameters.fieldofview";
// The BSDF Init keys passed on from the request.
constexpr Int32 BSDF_KEYS[] = {BSDF_PARAM_ROUGHNESS,           BSDF_PARAM_ANISOTROPY,
                               BSDF_PARAM_ANISOTROPY_ANGLE,    BSDF_PARAM_ORENNAYAR_ROUGHNESS,
                               BSDF_PARAM_ORENNAYAR_SIMPLE,    BSDF_PARAM_BLURRY_REFLECTED_LOBE,
                               BSDF_PARAM_BLURRY_ROUGHNESS,    BSDF_PARAM_BLURRY_FALLOFF_SHIFT,
                               BSDF_PARAM_BLURRY_FALLOFF_POWER};

constexpr Vector64 BALL_CENTRE{0.0, 1.0, 0.0};
constexpr Float64 BALL_RADIUS = 1.0;
constexpr Float64 RAY_OFFSET = 1e-6;

// ---- random numbers --------------------------------------------------------------------------

UInt Mix(UInt z) {
    z += 0x9e3779b97f4a7c15ull;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

// The numbers of one path: a counter hashed with the path's key.
struct PathRandom {
    UInt key;
    UInt counter = 0;
    Float32 Next() { return static_cast<Float32>(Mix(key ^ Mix(++counter)) >> 40) * 0x1.0p-24f; }
};

UInt PathKey(Int seed, Int level, Int x, Int y, Int sample) {
    UInt k = Mix(static_cast<UInt>(seed));
    k = Mix(k ^ static_cast<UInt>(level));
    k = Mix(k ^ (static_cast<UInt>(y) << 32 | static_cast<UInt>(x & 0xffffffff)));
    return Mix(k ^ static_cast<UInt>(sample));
}

// ---- vectors ---------------------------------------------------------------------------------

Vector64 Add(const Vector64& a, const Vector64& b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
Vector64 Sub(const Vector64& a, const Vector64& b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
Vector64 Scale(const Vector64& a, Float64 s) { return {a.x * s, a.y * s, a.z * s}; }
Float64 Dot(const Vector64& a, const Vector64& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
Vector64 Cross(const Vector64& a, const Vector64& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
Vector64 Normalize(const Vector64& a) {
    const Float64 l = std::sqrt(Dot(a, a));
    return l > 0.0 ? Scale(a, 1.0 / l) : a;
}

// The sky: a gradient from a warm horizon to a blue zenith and a soft sun.
Color64 Sky(const Vector64& d) {
    const Float64 t = std::sqrt(std::max(d.y, 0.0));
    const Color64 horizon{1.1, 1.0, 0.9};
    const Color64 zenith{0.25, 0.45, 0.9};
    static const Vector64 sun = Normalize({-0.6, 0.7, -0.4});
    const Float64 s = std::max(Dot(d, sun), 0.0);
    const Float64 glow = 4.0 * std::pow(s, 48.0);
    return {horizon.r + (zenith.r - horizon.r) * t + glow,
            horizon.g + (zenith.g - horizon.g) * t + glow,
            horizon.b + (zenith.b - horizon.b) * t + glow * 0.9};
}

// Distance along a unit ray to the ball, or a negative value.
Float64 HitBall(const Vector64& o, const Vector64& d) {
    const Vector64 oc = Sub(o, BALL_CENTRE);
    const Float64 b = Dot(oc, d);
    const Float64 c = Dot(oc, oc) - BALL_RADIUS * BALL_RADIUS;
    const Float64 disc = b * b - c;
    if (disc < 0.0) return -1.0;
    const Float64 r = std::sqrt(disc);
    if (-b - r > RAY_OFFSET) return -b - r;
    if (-b + r > RAY_OFFSET) return -b + r;
    return -1.0;
}

Float64 HitFloor(const Vector64& o, const Vector64& d) {
    if (d.y >= 0.0 || o.y <= 0.0) return -1.0;
    return -o.y / d.y;
}

struct BallProvider {
    BallProvider() { g_liveProviders.fetch_add(1); }
    BallProvider(const BallProvider& o) : BallProvider() { *this = o; }
    BallProvider& operator=(const BallProvider&) = default;
    ~BallProvider() { g_liveProviders.fetch_sub(1); }

    Result<void> Initialize(const DataDictionaryObjectInterface::Ref& request, Int threadCount) {
        size = GetObjectValue(request, nodes::PREVIEW_TEXTURESIZE, Vector2i64{0, 0});
        if (size.x < 1 || size.y < 1 || size.x > 16384 || size.y > 16384) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "Illegal argument: The ball needs a size from 1x1 to 16384x16384");
        }
        iterations = GetObjectValue(request, BALL_ITERATIONS, Int(6));
        baseSamples = GetObjectValue(request, BALL_SAMPLES, Int(1));
        depth = GetObjectValue(request, BALL_DEPTH, Int(4));
        seed = GetObjectValue(request, BALL_SEED, Int(0));
        color = GetObjectValue(request, BALL_COLOR, Color64{0.8, 0.3, 0.15});
        if (iterations < 1 || iterations > 16 || baseSamples < 1 || baseSamples > 1024 ||
            depth < 1 || depth > 64) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             "Illegal argument: Ball iterations must be 1 to 16, samples 1 to "
                             "1024, depth 1 to 64");
        }
        threads = threadCount;
        const Id bsdfId = GetObjectValue(request, BALL_BSDF, Id::Intern(BALL_DEFAULT_BSDF));
        // The cloth class needs a weave record at Init and the anisotropic pair per-object data
        // and a frame that steps a random state per call (one object can't serve the rows'
        // threads): the ball takes the twelve others.
        for (const char* refused :
             {IRAWAN_BRDF_CLASS_ID, ANISOTROPIC_BRDF_CLASS_ID, ANISOTROPIC_BTDF_CLASS_ID}) {
            if (bsdfId.View() == refused) {
                return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                                 "Illegal argument: The ball takes the legacy BSDF classes without "
                                 "per-object data (not the cloth or anisotropic ones)");
            }
        }
        Result<DataDictionary> params = DataDictionary::Create();
        if (params.IsError()) return params.GetError();
        bool roughnessGiven = false;
        for (Int32 key : BSDF_KEYS) {
            Result<Data> value = request.GetData(DataDictionaryKey(key));
            if (value.IsError() || value.GetValue().IsEmpty()) continue;
            roughnessGiven |= key == BSDF_PARAM_ROUGHNESS;
            QUORV_RETURN_IF_ERROR(
                params.GetValue().SetData(DataDictionaryKey(key), value.GetValue()));
        }
        if (!roughnessGiven) {
            QUORV_RETURN_IF_ERROR(params.GetValue().Set(
                DictionaryKey<Float64>(BSDF_PARAM_ROUGHNESS), BALL_DEFAULT_ROUGHNESS));
        }
        const std::string_view bsdfText = bsdfId.View();
        Result<BSDFLegacyRef> ball =
            MakeBSDF(LiteralId(bsdfText.data(), LiteralIdWord(bsdfText)), params.GetValue());
        if (ball.IsError()) return ball.GetError();
        Result<BSDFLegacyRef> floor = MakeBSDF(LiteralId(LAMBERT_BRDF_CLASS_ID), DataDictionary());
        if (floor.IsError()) return floor.GetError();
        ballBSDF = ball.GetValue();
        floorBSDF = floor.GetValue();
        // One camera per size: iterations 0 to 3 differ in resolution.
        for (Int level = 0; level < 4; ++level) {
            Result<CameraRef> camera = MakeCamera(BallIterationSize(size, level));
            if (camera.IsError()) return camera.GetError();
            cameras[level] = camera.GetValue();
        }
        return OK;
    }

    Result<void> ComputeIteration(JobObject* job) {
        // A cancellation that lands after the last poll below ends the job as cancelled though
        // the iteration was committed: the worker then takes no output. The committed iteration
        // is handed over by the next job instead of being skipped.
        if (untaken) return OK;
        const auto start = std::chrono::steady_clock::now();
        const Int index = nextIndex;
        if (index >= iterations) return OK;  // nothing more; TakeOutput repeats the last
        const Vector2i64 s = BallIterationSize(size, index);
        const Int level = std::min<Int>(index, 3);
        const Int fresh = index <= 3;
        const Int first = fresh ? 0 : totalSamples;
        const Int count = BallNewSamples(baseSamples, index);
        const size_t pixels = static_cast<size_t>(s.x) * static_cast<size_t>(s.y);
        try {
            scratch.assign(pixels * 3, 0.0);
        } catch (const std::bad_alloc&) {
            return OutOfMemoryError();
        }
        const std::vector<Float64>* previous = fresh ? nullptr : &sums;
        const CameraRef& camera = cameras[level];
        Result<void> traced = ParallelFor(0, s.y, 1, [&](Int from, Int to, Int) -> Result<void> {
            for (Int y = from; y < to; ++y) {
                if (job && ThreadServicesInterface::IsCancelled(job)) {
                    return OperationCancelledError(QUORV_SOURCE_LOCATION);
                }
                g_rowsBegun.fetch_add(1, std::memory_order_relaxed);
                for (Int x = 0; x < s.x; ++x) {
                    const size_t p =
                        static_cast<size_t>(y) * static_cast<size_t>(s.x) + static_cast<size_t>(x);
                    Color64 sum = previous ? Color64{(*previous)[3 * p], (*previous)[3 * p + 1],
                                                     (*previous)[3 * p + 2]}
                                           : Color64{};
                    for (Int i = first; i < first + count; ++i) {
                        const Color64 c = TracePixel(camera, level, x, y, i);
                        sum.r += c.r;
                        sum.g += c.g;
                        sum.b += c.b;
                    }
                    scratch[3 * p] = sum.r;
                    scratch[3 * p + 1] = sum.g;
                    scratch[3 * p + 2] = sum.b;
                }
            }
            return OK;
        });
        if ((job && ThreadServicesInterface::IsCancelled(job)) ||
            (traced.IsError() && IsOperationCancelled(traced.GetErrorPointer()))) {
            ++cancelledIterations;  // adds nothing: the next computation starts from the same state
            return OK;
        }
        if (traced.IsError()) return traced;
        const Int total = fresh ? count : totalSamples + count;
        Result<Ref<nodes::SampleBuffer>> buffer =
            nodes::SampleBuffer::Create(static_cast<Int>(pixels));
        if (buffer.IsError()) return buffer.GetError();
        nodes::PreviewSample* out = buffer.GetValue()->GetData();
        const Float64 inv = 1.0 / static_cast<Float64>(total);
        for (size_t p = 0; p < pixels; ++p) {
            out[p] = ColorA32{static_cast<Float32>(scratch[3 * p] * inv),
                              static_cast<Float32>(scratch[3 * p + 1] * inv),
                              static_cast<Float32>(scratch[3 * p + 2] * inv), 1.0f};
        }
        std::swap(sums, scratch);
        totalSamples = total;
        image =
            nodes::PreviewImageProviderOutputImage{s.x, s.y, std::move(buffer.GetValue()), false};
        deliveredIndex = index;
        nextIndex = index + 1;
        untaken = true;
        lastMs =
            std::chrono::duration<Float64, std::milli>(std::chrono::steady_clock::now() - start)
                .count();
        return OK;
    }

    Result<nodes::PreviewImageProviderOutput> TakeOutput() {
        untaken = false;
        nodes::PreviewImageProviderOutput out;
        out.iterationIndex = deliveredIndex;
        out.iterationCount = iterations;
        out.flag = false;
        if (deliveredIndex < 0) return out;  // nothing computed: the worker delivers nothing
        QUORV_RETURN_IF_ERROR(out.images.Set(BALL_IMAGE, image));
        QUORV_RETURN_IF_ERROR(out.metadata.Set(BALL_META_SAMPLES, totalSamples));
        QUORV_RETURN_IF_ERROR(out.metadata.Set(BALL_META_CANCELLED, cancelledIterations));
        QUORV_RETURN_IF_ERROR(out.metadata.Set(BALL_META_MS, lastMs));
        QUORV_RETURN_IF_ERROR(out.metadata.Set(BALL_META_THREADS, threads));
        return out;
    }

    static Result<BSDFLegacyRef> MakeBSDF(const LiteralId& id, const DataDictionary& params) {
        Result<ObjectRef> o = CreateObjectById(LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID), id);
        if (o.IsError()) return o.GetError();
        Result<BSDFLegacyRef> bsdf = BSDFLegacyRef::Cast(o.GetValue());
        if (bsdf.IsError()) return bsdf;
        QUORV_RETURN_IF_ERROR(bsdf.GetValue().Init(params, nullptr));
        return bsdf;
    }

    static Result<CameraRef> MakeCamera(Vector2i64 s) {
        Result<ObjectRef> o =
            CreateObjectById(LiteralId(CAMERA_REGISTRY), LiteralId(PERSPECTIVE_CAMERA));
        if (o.IsError()) return o.GetError();
        Result<CameraRef> camera = CameraRef::Cast(o.GetValue());
        if (camera.IsError()) return camera;
        Result<DataDictionary> params = DataDictionary::Create();
        if (params.IsError()) return params.GetError();
        // Looking down at the ball from the front and a little above; x to the right, y up.
        const Vector64 eye{0.0, 1.7, -4.6};
        const Vector64 forward = Normalize(Sub(Vector64{0.0, 0.75, 0.0}, eye));
        const Vector64 right = Normalize(Cross(Vector64{0.0, 1.0, 0.0}, forward));
        Matrix64 m;
        m.offset = eye;
        m.axisX = right;
        m.axisY = Cross(forward, right);
        m.axisZ = forward;
        QUORV_RETURN_IF_ERROR(params.GetValue().SetData(
            LiteralId(CAMERA_RESOLUTION_KEY), Data::Of(Vector2d64{Float64(s.x), Float64(s.y)})));
        QUORV_RETURN_IF_ERROR(params.GetValue().SetData(LiteralId(CAMERA_MATRIX_KEY), Data::Of(m)));
        QUORV_RETURN_IF_ERROR(
            params.GetValue().SetData(LiteralId(CAMERA_FOV_KEY), Data::Of(Float64(0.9))));
        QUORV_RETURN_IF_ERROR(camera.GetValue().Init(params.GetValue(), 0));
        return camera;
    }

    // One path through pixel (x, y) of the level's size: the sample's own jitter in the pixel.
    Color64 TracePixel(const CameraRef& camera, Int level, Int x, Int y, Int sample) const {
        PathRandom rnd{PathKey(seed, level, x, y, sample)};
        Ray ray;
        const Float64 jx = rnd.Next(), jy = rnd.Next();
        camera.CreateScreenRay({Float64(x) + jx, Float64(y) + jy}, ray);
        Vector64 o = ray.origin;
        Vector64 d = Normalize(ray.direction);
        Color64 weight{1.0, 1.0, 1.0};
        Color64 radiance{};
        for (Int bounce = 0; bounce < depth; ++bounce) {
            const Float64 tb = HitBall(o, d);
            const Float64 tf = HitFloor(o, d);
            const bool ballHit = tb > 0.0 && (tf <= 0.0 || tb < tf);
            if (!ballHit && tf <= 0.0) {
                const Color64 sky = Sky(d);
                radiance = {radiance.r + weight.r * sky.r, radiance.g + weight.g * sky.g,
                            radiance.b + weight.b * sky.b};
                return radiance;
            }
            const Vector64 p = Add(o, Scale(d, ballHit ? tb : tf));
            Vector64 n =
                ballHit ? Scale(Sub(p, BALL_CENTRE), 1.0 / BALL_RADIUS) : Vector64{0.0, 1.0, 0.0};
            const Vector64 wo = Scale(d, -1.0);
            if (Dot(wo, n) < 0.0) n = Scale(n, -1.0);
            Color64 albedo = color;
            if (!ballHit) {
                const bool odd =
                    ((static_cast<Int>(std::floor(p.x)) + static_cast<Int>(std::floor(p.z))) & 1) !=
                    0;
                const Float64 a = odd ? 0.2 : 0.7;
                albedo = {a, a, a};
            }
            const BSDFLegacyRef& bsdf = ballHit ? ballBSDF : floorBSDF;
            const BSDFFrame frame = bsdf.ComputeBSDFFrame(n, {}, {}, p, false, true, false);
            const Vector64 woLocal{Dot(wo, frame.u), Dot(wo, frame.v), Dot(wo, frame.n)};
            const Float32 u0 = rnd.Next(), u1 = rnd.Next(), u2 = rnd.Next();
            Vector64 wiLocal;
            Float64 pdf = 0.0;
            const Color64 value = bsdf.SampleF(woLocal, {0.0, 0.0, 1.0},
                                               MakeBSDFCachedSample(u0, u1, u2), wiLocal, pdf);
            // pi * f without the cosine: the path weight is value * |cos| / (pi * pdf).
            if (!(pdf > 0.0) || !std::isfinite(pdf)) break;
            const Float64 f = std::fabs(wiLocal.z) / (BSDF_PI * pdf);
            weight = {weight.r * value.r * f * albedo.r, weight.g * value.g * f * albedo.g,
                      weight.b * value.b * f * albedo.b};
            if (!std::isfinite(weight.r + weight.g + weight.b) ||
                (weight.r <= 0.0 && weight.g <= 0.0 && weight.b <= 0.0)) {
                break;
            }
            d = Normalize(Add(Add(Scale(frame.u, wiLocal.x), Scale(frame.v, wiLocal.y)),
                              Scale(frame.n, wiLocal.z)));
            o = Add(p, Scale(n, Dot(d, n) >= 0.0 ? RAY_OFFSET : -RAY_OFFSET));
        }
        return radiance;
    }

    Vector2i64 size;
    Int iterations = 6;
    Int baseSamples = 1;
    Int depth = 4;
    Int seed = 0;
    Int threads = 1;
    Color64 color;
    BSDFLegacyRef ballBSDF;
    BSDFLegacyRef floorBSDF;
    CameraRef cameras[4];
    // Committed state: per-pixel sums of the full-size samples so far (or of the last reduced
    // iteration), their count and the image made from them.
    std::vector<Float64> sums;
    std::vector<Float64> scratch;
    Int totalSamples = 0;
    Int nextIndex = 0;
    Int deliveredIndex = -1;
    Int cancelledIterations = 0;
    bool untaken = false;  // an iteration committed and not yet taken
    Float64 lastMs = 0.0;
    nodes::PreviewImageProviderOutputImage image;
};

ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"}});
SimpleClass<BallProvider, nodes::PreviewImageProviderInterface> g_class(
    g_unit, MATERIALBALL_PROVIDER_ID, nodes::PREVIEWIMAGEPROVIDER_REGISTRY_ID, __FILE__);

}  // namespace

}  // namespace quorv::previewproviders
