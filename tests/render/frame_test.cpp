// The module frame: its records as the host sees them, and the render data types with their
// defaults, layouts, the copy rule of ShadingContext and the answers of missing comparisons.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "render/cameras/camera.h"
#include "render/frame/rendercommon.h"
#include "render/frame/shadingcontext.h"

namespace quorv {
namespace {

using F = EntityBase::FLAGS;

UInt Bits(Float64 x) { return std::bit_cast<UInt>(x); }

// ---- records -------------------------------------------------------------------------------

TranslationUnitRecord* FindUnit(std::string_view id) {
    for (TranslationUnitRecord* u = g_moduleRecord.firstUnit; u; u = u->nextUnit) {
        if (u->id == id) return u;
    }
    return nullptr;
}

TEST(ModuleRecords, ModuleAndFrameworkPartsCarryTheirFlags) {
    const std::map<std::string, UInt32> expected{
        {"net.quorv.render", 0},
        {"net.quorv.core.framework", 0x8001000},
        {"net.quorv.private_render.framework", 0x1000},
        {"net.quorv.render.framework", 0x1000},
        {"net.quorv.image_ocio.framework", 0x1000},
        {"net.quorv.image.framework", 0x8001000},
        {"net.quorv.math.framework", 0x8001000},
        {"net.quorv.nodespace.framework", 0x8001000},
        {"net.quorv.graph.framework", 0x8001000},
        {"net.quorv.nodes.framework", 0x8001000},
        {"net.quorv.asset.framework", 0x8001000},
        {"net.quorv.misc.framework", 0x8001000},
    };
    std::map<std::string, UInt32> found;
    for (ModuleRecord* m = g_quorv.modules; m; m = m->nextModule) {
        EXPECT_EQ(m->flags & 0x201u, 0x201u) << m->id.View();
        EXPECT_EQ(m->type, static_cast<UInt32>(EntityBase::TYPE::MODULE));
        found[std::string(m->id.View())] = m->flags & (F::FRAMEWORK | F::PUBLIC);
    }
    EXPECT_EQ(found, expected);
    ASSERT_NE(g_moduleRecord.unit, nullptr);
    EXPECT_TRUE(g_moduleRecord.unit->id == "register.cpp");
    EXPECT_EQ(g_moduleRecord.unit->flags & F::REGISTRATION_UNIT, F::REGISTRATION_UNIT);
}

TEST(ModuleRecords, ReflectionUnitHoldsOneHiddenDependency) {
    TranslationUnitRecord* unit = FindUnit("[reflection registration]");
    ASSERT_NE(unit, nullptr);
    EXPECT_EQ(unit->flags, 0x8400000u | F::CONSTRUCTED);
    EXPECT_EQ(unit->first, nullptr);
    ASSERT_NE(unit->dependencies, nullptr);
    EXPECT_TRUE(unit->dependencies->id == ".reflection");
    EXPECT_EQ(unit->dependencies->flags & F::HIDDEN, F::HIDDEN);
    EXPECT_EQ(unit->dependencies->nextDependency, nullptr);
}

TEST(ModuleRecords, InitializationRanAndRegisteredTheDescriptionDatabase) {
    TranslationUnitRecord* unit = FindUnit("module_registration.cpp");
    ASSERT_NE(unit, nullptr);
    ASSERT_NE(unit->first, nullptr);
    ASSERT_EQ(unit->first->GetType(), EntityBase::TYPE::INITIALIZATION);
    auto* init = static_cast<InitializationRecord*>(unit->first);
    EXPECT_EQ(init->free, nullptr);
    EXPECT_EQ(init->flags & (F::INITIALIZED | F::INITIALIZATION_FAILED), F::INITIALIZED);
    // Its dependencies name the two interfaces it calls.
    std::vector<std::string> deps;
    for (DependencyRecord* d = unit->dependencies; d; d = d->nextDependency) {
        deps.emplace_back(d->id.View());
    }
    EXPECT_EQ(deps,
              (std::vector<std::string>{"net.quorv.interface.datadescriptiondefinitiondatabase",
                                        "net.quorv.interface.application"}));

    bool registered = false;
    for (const auto& [id, url] : host::Host::Get().ListDescriptionDatabases()) {
        registered |= id == "net.quorv.render.module" && url.size() > 3 &&
                      url.compare(url.size() - 3, 3, "res") == 0;
    }
    EXPECT_TRUE(registered);
}

TEST(ModuleRecords, CameraRegistryHoldsBothClasses) {
    std::vector<std::string> entries;
    for (const auto& r : host::Host::Get().ListRegistries()) {
        if (r.id == CAMERA_CLASS_REGISTRY_ID) entries = r.entries;
    }
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ(entries,
              (std::vector<std::string>{PARALLEL_CAMERA_CLASS_ID, PERSPECTIVE_CAMERA_CLASS_ID}));
}

// ---- defaults and layouts --------------------------------------------------------------------

TEST(RenderDataTypes, DefaultRayHasItsRangeIndexWeightAndFlags) {
    const Ray r;
    EXPECT_EQ(Bits(r.minDistance), 0u);
    EXPECT_EQ(Bits(r.maxDistance), 0x7FEFFFFFFFFFFFFFull);
    EXPECT_EQ(r.rayWord, 0u);
    EXPECT_EQ(r.rayIndex, -1);
    EXPECT_EQ(r.rayWeight, (Vector64{1.0, 1.0, 1.0}));
    EXPECT_EQ(r.rayValueA, 1.0);
    EXPECT_EQ(r.rayValueB, 1.0);
    EXPECT_EQ(r.rayFlagsA, 1);
    EXPECT_EQ(r.rayFlagsB, 1);
    for (const Vector64* v :
         {&r.origin, &r.direction, &r.originDx, &r.originDy, &r.directionDx, &r.directionDy}) {
        EXPECT_EQ(*v, Vector64{});
    }
}

TEST(RenderDataTypes, DefaultShadingContextHoldsDefaultMembers) {
    ShadingContext c;
    EXPECT_EQ(c.contextWord, 0u);
    EXPECT_EQ(c.contextIndex, -1);
    EXPECT_EQ(c.contextHandle, 0u);
    EXPECT_EQ(c.contextPair[0] | c.contextPair[1], 0u);
    EXPECT_EQ(c.objectIndex, -1);
    EXPECT_EQ(c.point, ShadingPoint());
    EXPECT_EQ(c.ray, Ray());
    for (Int i : c.indices) EXPECT_EQ(i, -1);
    for (UInt w : c.projection.words) EXPECT_EQ(w, 0u);
    EXPECT_EQ(c.projection.tailWord, 0u);
    EXPECT_EQ(c.projection.tailValue, 1);
    for (UInt w : c.scratchBlock) EXPECT_EQ(w, 0u);
    for (UInt w : c.tailBlock) EXPECT_EQ(w, 0u);
    EXPECT_EQ(c.hitHead.headWordA | c.hitHead.headWordB | c.hitHead.headFlag, 0u);
    EXPECT_FALSE(c.ocioConfig);
    EXPECT_FALSE(c.colorProfile);
}

TEST(RenderDataTypes, VertexColoursDefaultToOpaqueBlackAndUvwToZero) {
    const VertexColorData64 c64;
    const VertexColorData32 c32;
    for (const ColorA64* c : {&c64.a, &c64.b, &c64.c, &c64.d}) {
        EXPECT_EQ(*c, (ColorA64{0.0, 0.0, 0.0, 1.0}));
    }
    for (const ColorA32* c : {&c32.a, &c32.b, &c32.c, &c32.d}) {
        EXPECT_EQ(*c, (ColorA32{0.0f, 0.0f, 0.0f, 1.0f}));
    }
    const UVWData64 u64;
    const UVWData32 u32;
    EXPECT_EQ(u64.d, Vector64{});
    EXPECT_EQ(u32.d, Vector32{});
    const IntersectionResult32 h32;
    EXPECT_EQ(h32.hitVectorB, Vector32{});
    EXPECT_EQ(h32.hitValue, 0);
}

// ---- the registered types --------------------------------------------------------------------

struct RecordType {
    const char* id;
    const char* typeName;
    Int size;
};

const RecordType RECORD_TYPES[] = {
    {"net.quorv.render.ray", "quorv::Ray", 224},
    {"net.quorv.render.shadingpoint", "quorv::ShadingPoint", 232},
    {"net.quorv.render.projection", "quorv::Projection", 176},
    {"net.quorv.render.datatype.shadingcontext", "quorv::ShadingContext", 840},
    {"net.quorv.render.intersectionresult64", "quorv::IntersectionResult64", 80},
    {"net.quorv.render.intersectionresult32", "quorv::IntersectionResult32", 56},
    {"net.quorv.render.datatype.bsdflayer", "quorv::BSDFLayer", 1},
    {"net.quorv.render.legacy_renderers.samplercache", "quorv::SamplerCache", 4812000},
    {"net.quorv.datatype.rendercommon.uvwdata32", "quorv::UVWData32", 48},
    {"net.quorv.datatype.rendercommon.uvwdata64", "quorv::UVWData64", 96},
    {"net.quorv.datatype.rendercommonvertex.colordata32", "quorv::VertexColorData32", 64},
    {"net.quorv.datatype.rendercommonvertex.colordata64", "quorv::VertexColorData64", 128},
};

TEST(RenderDataTypes, RegisteredInOrderWithIdsNamesAndSizes) {
    std::vector<host::DataTypeListing> ours;
    // The photometric enumerations come from their own unit, render/photometric/ies_impl.cpp.
    const std::vector<std::string> photometric{"quorv::IESVERSION", "quorv::IESTILT",
                                               "quorv::AREALIGHTSHAPE"};
    // The BSDF sample record and cache handle come from render/legacy_renderers/bsdf_impl.cpp.
    const std::vector<std::string> legacyBsdf{"quorv::BSDFCachedSample",
                                              "quorv::SamplerCachePointer"};
    for (const auto& t : host::Host::Get().ListDataTypes()) {
        if (t.typeName.rfind("quorv::", 0) != 0) continue;
        // The preview request's types come from render/preview/previewimagerequestdata.cpp.
        if (t.typeName.rfind("quorv::nodes::", 0) == 0) continue;
        if (std::find(photometric.begin(), photometric.end(), t.typeName) != photometric.end()) {
            continue;
        }
        if (std::find(legacyBsdf.begin(), legacyBsdf.end(), t.typeName) != legacyBsdf.end()) {
            continue;
        }
        ours.push_back(t);
    }
    const std::vector<std::string> enums{"quorv::RENDER_MODE", "quorv::SETUP_STATE",
                                         "quorv::QUADRANT"};
    ASSERT_EQ(ours.size(), std::size(RECORD_TYPES) + enums.size());
    for (size_t i = 0; i < std::size(RECORD_TYPES); ++i) {
        EXPECT_EQ(ours[i].id, RECORD_TYPES[i].id);
        EXPECT_EQ(ours[i].typeName, RECORD_TYPES[i].typeName);
        EXPECT_EQ(ours[i].size, RECORD_TYPES[i].size);
        EXPECT_EQ(ours[i].kind, DATATYPEKIND::TUPLE);
    }
    for (size_t i = 0; i < enums.size(); ++i) {
        const auto& t = ours[std::size(RECORD_TYPES) + i];
        EXPECT_EQ(t.typeName, enums[i]);
        EXPECT_EQ(t.kind, DATATYPEKIND::ENUM);
        EXPECT_EQ(t.size, 4);
        EXPECT_EQ(t.id, i == 0 ? "net.quorv.render.datatype.rendermode" : "");
    }
}

std::vector<std::pair<std::string, Int>> ValuesOf(const DataType* t) {
    std::vector<std::pair<std::string, Int>> out;
    if (!t) return out;
    for (Int i = 0; i < t->enumCount; ++i)
        out.emplace_back(t->enumValues[i].name, t->enumValues[i].value);
    return out;
}

TEST(RenderDataTypes, EnumerationsCarryTheirValues) {
    EXPECT_EQ(
        ValuesOf(GetDataType<RENDER_MODE>()),
        (std::vector<std::pair<std::string, Int>>{{"NORMAL", 0}, {"PREVIEW", 1}, {"VIEWPORT", 2}}));
    // The two without an id are found through their records, which the host filled.
    TranslationUnitRecord* unit = FindUnit("main.cpp");
    ASSERT_NE(unit, nullptr);
    std::map<std::string, const DataTypeRecord*> hidden;
    for (EntityBase* r = unit->first; r; r = r->next) {
        auto* d = static_cast<DataTypeRecord*>(r);
        if (r->GetType() == EntityBase::TYPE::DATATYPE && d->id.IsEmpty()) hidden[d->typeName] = d;
    }
    ASSERT_EQ(hidden.size(), 2u);
    const DataTypeRecord* setup = hidden["quorv::SETUP_STATE"];
    const DataTypeRecord* quadrant = hidden["quorv::QUADRANT"];
    ASSERT_TRUE(setup && quadrant);
    EXPECT_EQ(setup->flags & F::HIDDEN, F::HIDDEN);
    EXPECT_EQ(ValuesOf(setup->value), (std::vector<std::pair<std::string, Int>>{
                                          {"UNINITIALIZED", 0}, {"FAILED", 1}, {"SUCCEEDED", 2}}));
    EXPECT_EQ(ValuesOf(quadrant->value),
              (std::vector<std::pair<std::string, Int>>{
                  {"TOP_LEFT", 0}, {"TOP_RIGHT", 1}, {"BOTTOM_LEFT", 2}, {"BOTTOM_RIGHT", 3}}));
}

TEST(RenderDataTypes, ComparisonsReportStopAndAnswerZero) {
    for (const RecordType& rt : RECORD_TYPES) {
        SCOPED_TRACE(rt.id);
        const DataType* t = DataTypeLibInterface::GetRuntimeDataType(rt.id);
        ASSERT_NE(t, nullptr);
        const DataTypeOperations& ops = *t->operations;
        void* a = ops.HeapNew(t);
        void* b = ops.HeapClone(t, a);
        ASSERT_TRUE(a && b);
        host::Host::Get().ClearCriticalLog();
        EXPECT_FALSE(ops.IsEqual(t, a, a));
        EXPECT_EQ(ops.Compare(t, a, b), 0);
        EXPECT_EQ(ops.GetHashCode(t, a), 0u);
        EXPECT_EQ(ops.GetUniqueHashCode(t, a), 0u);
        EXPECT_EQ(host::Host::Get().GetCriticalLog(),
                  (std::vector<std::string>{
                      "Stop: IsEqual not defined.", "Stop: Compare not defined.",
                      "Stop: GetHashCode not defined.", "Stop: GetUniqueHashCode not defined."}));
        EXPECT_EQ(ops.GetSize(t), rt.size);
        ops.HeapDelete(t, a);
        ops.HeapDelete(t, b);
    }
    host::Host::Get().ClearCriticalLog();
}

TEST(RenderDataTypes, HeapAndArrayFormsConstructWithDefaults) {
    const DataType* t = GetDataType<Ray>();
    ASSERT_NE(t, nullptr);
    auto* r = static_cast<Ray*>(t->operations->HeapNew(t));
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(*r, Ray());
    t->operations->HeapDelete(t, r);

    // Two VertexColorData64 in garbage memory, with a stride larger than the type.
    constexpr Int stride = sizeof(VertexColorData64) + 32;
    alignas(8) unsigned char block[2 * stride];
    std::memset(block, 0xAB, sizeof(block));
    const DataType* v = GetDataType<VertexColorData64>();
    ASSERT_NE(v, nullptr);
    v->operations->Construct(block, stride, 0);  // a count below 1 does nothing
    EXPECT_EQ(block[0], 0xAB);
    v->operations->Construct(block, stride, 2);
    EXPECT_EQ(reinterpret_cast<VertexColorData64*>(block + stride)->d.a, 1.0);
    EXPECT_EQ(block[sizeof(VertexColorData64)], 0xAB);  // the gap between the two is untouched
}

// ---- ShadingContext: its two references ------------------------------------------------------

std::vector<std::string> g_released;

// A counted object whose destruction is recorded by name.
struct Counted {
    ObjectHeader header{nullptr, &Release, 0, 0};
    const char* name;

    explicit Counted(const char* n) : name(n) {}
    void* Object() { return &name; }
    template <typename T>
    Ref<T> Take() {
        return Ref<T>(static_cast<T*>(Object()));
    }
    UInt Count() { return GetCountWord(Object()); }
    static void Release(void* object) { g_released.push_back(*static_cast<const char**>(object)); }
};
static_assert(offsetof(Counted, name) == sizeof(ObjectHeader));

TEST(ShadingContextReferences, DestructionReleasesColorProfileFirst) {
    g_released.clear();
    Counted ocio("ocio"), profile("profile");
    {
        ShadingContext c;
        c.ocioConfig = ocio.Take<OcioConfigObject>();
        c.colorProfile = profile.Take<ColorProfileObject>();
        EXPECT_EQ(ocio.Count(), 16u);
        EXPECT_EQ(profile.Count(), 16u);
    }
    EXPECT_EQ(g_released, (std::vector<std::string>{"profile", "ocio"}));
}

TEST(ShadingContextReferences, TableCopyLeavesReferencesNullAndCopiesTheRest) {
    g_released.clear();
    const DataType* t = GetDataType<ShadingContext>();
    ASSERT_NE(t, nullptr);
    const DataTypeOperations& ops = *t->operations;
    Counted ocio("ocio"), profile("profile"), old("old");
    {
        ShadingContext src;
        src.ocioConfig = ocio.Take<OcioConfigObject>();
        src.colorProfile = profile.Take<ColorProfileObject>();
        src.contextWord = 7;
        src.lateWord = 0x1234;
        src.ray.origin = {1.0, 2.0, 3.0};
        src.point.normal = {0.0, 0.0, 1.0};
        src.projection.words[19] = 5;
        src.tailBlock[3] = 9;

        ShadingContext dst;
        dst.colorProfile = old.Take<ColorProfileObject>();
        ops.Copy(&dst, &src, sizeof(ShadingContext), 1);  // the third operation
        EXPECT_FALSE(dst.ocioConfig);
        EXPECT_FALSE(dst.colorProfile);
        EXPECT_EQ(g_released, std::vector<std::string>{"old"});  // the destination's former one
        EXPECT_EQ(ocio.Count(), 16u);
        EXPECT_EQ(profile.Count(), 16u);
        EXPECT_EQ(dst.contextWord, 7u);
        EXPECT_EQ(dst.lateWord, 0x1234u);
        EXPECT_EQ(dst.ray, src.ray);
        EXPECT_EQ(dst.point, src.point);
        EXPECT_EQ(dst.projection.words[19], 5u);
        EXPECT_EQ(dst.tailBlock[3], 9u);

        // The heap form and copy construction follow the same rule.
        auto* clone = static_cast<ShadingContext*>(ops.HeapClone(t, &src));
        ASSERT_NE(clone, nullptr);
        EXPECT_FALSE(clone->ocioConfig || clone->colorProfile);
        EXPECT_EQ(clone->ray, src.ray);
        ops.HeapDelete(t, clone);
        alignas(ShadingContext) unsigned char raw[sizeof(ShadingContext)];
        ops.CopyConstruct(raw, &src, sizeof(ShadingContext), 1);
        auto* constructed = reinterpret_cast<ShadingContext*>(raw);
        EXPECT_FALSE(constructed->ocioConfig || constructed->colorProfile);
        ops.Destruct(raw, sizeof(ShadingContext), 1);
        EXPECT_EQ(ocio.Count(), 16u);
        EXPECT_EQ(profile.Count(), 16u);

        // A move hands both references over.
        ops.Move(&dst, &src, sizeof(ShadingContext), 1);
        EXPECT_EQ(dst.ocioConfig.Get(), ocio.Object());
        EXPECT_EQ(dst.colorProfile.Get(), profile.Object());
        EXPECT_FALSE(src.ocioConfig || src.colorProfile);
        EXPECT_EQ(ocio.Count(), 16u);
    }
    EXPECT_EQ(g_released, (std::vector<std::string>{"old", "profile", "ocio"}));
}

}  // namespace
}  // namespace quorv
