#pragma once
/// The preview providers of libquorv_previewproviders.so, registered in
/// "net.quorv.nodes.registry.previewimageproviders":
///
/// * "net.quorv.previewproviders.materialball": a ball on a checker floor under a procedural
///   sky, seen through the perspective camera class, shaded by a legacy BSDF class by id and
///   rendered by paths drawn with `SampleF`. Iterations 0, 1 and 2 are fresh renders at 1/8,
///   1/4 and 1/2 of the size; from iteration 3 on every iteration is full size and doubles the
///   samples per pixel so far. Samples are linear RGBA Float32, alpha 1. Every random number
///   is a function of (seed, iteration level, pixel, sample, dimension) alone, so neither the
///   thread count nor a pause changes a bit; a cancelled iteration adds nothing.
/// * "net.quorv.previewproviders.scripted": iterations as the request's keys script them
///   (count, indices, sizes, a failure at a step, work time, a gate the caller opens); its
///   metadata logs each computation.
///
/// The module links the framework only: the camera and BSDF classes are made by id through the
/// host's class registry, so the render module must be loaded first.

#include "quorv/datadictionary.h"
#include "render/preview/previewimage.h"

namespace quorv::previewproviders {

inline constexpr const char* MODULE_ID = "net.quorv.previewproviders";
inline constexpr const char* MATERIALBALL_PROVIDER_ID = "net.quorv.previewproviders.materialball";
inline constexpr const char* SCRIPTED_PROVIDER_ID = "net.quorv.previewproviders.scripted";

// ---- the material ball -------------------------------------------------------------------------

/// Key of the ball's image in the output.
inline const DictionaryKey<nodes::PreviewImageProviderOutputImage> BALL_IMAGE(
    "net.quorv.previewproviders.materialball.image");
/// Legacy BSDF class id of the ball; default the GGX reflection class.
inline const DictionaryKey<Id> BALL_BSDF("net.quorv.previewproviders.materialball.bsdf");
/// Iterations announced, from 1 to 16; default 6 (three reduced sizes, three full ones).
inline const DictionaryKey<Int> BALL_ITERATIONS(
    "net.quorv.previewproviders.materialball.iterations");
/// Samples per pixel of iteration 0, from 1 to 1024; iteration k has base << k in all.
inline const DictionaryKey<Int> BALL_SAMPLES("net.quorv.previewproviders.materialball.samples");
/// Seed of every random number; default 0.
inline const DictionaryKey<Int> BALL_SEED("net.quorv.previewproviders.materialball.seed");
/// Largest number of surface interactions of a path, from 1 to 64; default 4.
inline const DictionaryKey<Int> BALL_DEPTH("net.quorv.previewproviders.materialball.depth");
/// Reflectance the BSDF's value is multiplied by; default (0.8, 0.3, 0.15).
inline const DictionaryKey<Color64> BALL_COLOR("net.quorv.previewproviders.materialball.color");
/// Default BSDF parameters: the request's entries under the BSDF's integer Init keys (1001 to
/// 1005, 1017 to 1020) are passed on; without 1001 the ball gets this roughness.
inline constexpr Float64 BALL_DEFAULT_ROUGHNESS = 0.3;
inline constexpr const char* BALL_DEFAULT_BSDF = "net.quorv.render.bsdflegacyclass.ggxbrdf";

/// Metadata of a ball iteration.
inline const DictionaryKey<Int> BALL_META_SAMPLES(
    "net.quorv.previewproviders.materialball.samplesperpixel");
inline const DictionaryKey<Int> BALL_META_CANCELLED(
    "net.quorv.previewproviders.materialball.cancellediterations");
inline const DictionaryKey<Float64> BALL_META_MS(
    "net.quorv.previewproviders.materialball.computems");
inline const DictionaryKey<Int> BALL_META_THREADS(
    "net.quorv.previewproviders.materialball.threads");

/// The size of ball iteration `index` for a target of `size`: 1/8, 1/4, 1/2, then full, each
/// side at least 1.
Vector2i64 BallIterationSize(Vector2i64 size, Int index);
/// Samples per pixel computed by iteration `index` (base << index for 0..3, then
/// base << (index - 1)), and the number it has in all (base << index).
Int BallNewSamples(Int base, Int index);

// ---- the scripted provider -------------------------------------------------------------------

/// Key of the scripted image in the output.
inline const DictionaryKey<nodes::PreviewImageProviderOutputImage> SCRIPTED_IMAGE(
    "net.quorv.previewproviders.scripted.image");
/// Iteration count announced; default 3.
inline const DictionaryKey<Int> SCRIPTED_COUNT("net.quorv.previewproviders.scripted.count");
/// Indices announced by step, "0,2,2"; a step past the list announces its own number.
inline const DictionaryKey<std::string> SCRIPTED_INDICES(
    "net.quorv.previewproviders.scripted.indices");
/// Image sizes by step, "2x2,4x4"; a step past the list takes the last, an empty list the
/// request's texture size.
inline const DictionaryKey<std::string> SCRIPTED_SIZES("net.quorv.previewproviders.scripted.sizes");
/// A failure: "initialize", "compute:N" (the job of step N fails) or "take:N" (`TakeOutput`
/// after step N fails).
inline const DictionaryKey<std::string> SCRIPTED_FAIL("net.quorv.previewproviders.scripted.fail");
/// Work of each computation, in seconds of polling for cancellation; default 0.
inline const DictionaryKey<Float64> SCRIPTED_WORKTIME(
    "net.quorv.previewproviders.scripted.worktime");
/// A host condition variable (its address, for callers in this process) that every
/// computation waits for, or until its job is cancelled; 0 is none.
inline const DictionaryKey<Int> SCRIPTED_GATE("net.quorv.previewproviders.scripted.gate");

/// Metadata of a scripted output: one line per computation so far,
/// "compute STEP thread T begin B end E cancelled 0|1" (times in ns of the steady clock),
/// the step, the number of computations and the begin of the computation delivered.
inline const DictionaryKey<std::string> SCRIPTED_META_LOG(
    "net.quorv.previewproviders.scripted.log");
inline const DictionaryKey<Int> SCRIPTED_META_STEP("net.quorv.previewproviders.scripted.step");
inline const DictionaryKey<Int> SCRIPTED_META_COMPUTATIONS(
    "net.quorv.previewproviders.scripted.computations");
inline const DictionaryKey<Int> SCRIPTED_META_BEGIN("net.quorv.previewproviders.scripted.begin");

/// Rows the ball has begun in this binary's copy of the class, over all instances (for tests
/// that must pause an iteration in progress).
Int BallRowsBegun();

/// Live provider instances of this binary's copy of the classes (for tests: nothing left at
/// rest).
Int LiveProviderCount();

}  // namespace quorv::previewproviders
