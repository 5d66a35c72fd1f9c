// The render data types that renderers, cameras, intersectors and BSDFs of several modules
// pass to one another, and the enumerations registered beside them. The host turns each
// record into a data type object when it runs the module's definitions.
#include "quorv/services.h"  // the definition of DataTypeOperationsOf
#include "render/frame/rendercommon.h"
#include "render/frame/shadingcontext.h"
#include "render/legacy_renderers/microfacetdistributioncaches.h"

namespace quorv {

namespace {

TranslationUnitRecord g_unit;
DataTypeRecord g_ray;
DataTypeRecord g_shadingPoint;
DataTypeRecord g_projection;
DataTypeRecord g_shadingContext;
DataTypeRecord g_intersectionResult64;
DataTypeRecord g_intersectionResult32;
DataTypeRecord g_bsdfLayer;
DataTypeRecord g_samplerCache;
DataTypeRecord g_uvwData32;
DataTypeRecord g_uvwData64;
DataTypeRecord g_vertexColorData32;
DataTypeRecord g_vertexColorData64;
DataTypeRecord g_renderMode;
DataTypeRecord g_setupState;
DataTypeRecord g_quadrant;

constexpr EnumValue RENDER_MODE_VALUES[] = {{"NORMAL", 0}, {"PREVIEW", 1}, {"VIEWPORT", 2}};
constexpr EnumValue SETUP_STATE_VALUES[] = {{"UNINITIALIZED", 0}, {"FAILED", 1}, {"SUCCEEDED", 2}};
constexpr EnumValue QUADRANT_VALUES[] = {
    {"TOP_LEFT", 0}, {"TOP_RIGHT", 1}, {"BOTTOM_LEFT", 2}, {"BOTTOM_RIGHT", 3}};

// These records define no comparison or hash: each comparison reports "Stop: ... not defined."
// and answers 0. ShadingContext needs nothing of its own here: its C++ copy already leaves
// the two references null in the copy, and the table's copy operations use it.
template <typename T>
void DefineRecordType(DataTypeRecord& record, const char* typeName) {
    DefineRecordDataType<T, COMPARISON::NONE>(record, typeName, g_unit, __FILE__);
}

template <typename E, size_t N>
void DefineEnumType(DataTypeRecord& record, LiteralId id, const char* typeName,
                    const EnumValue (&values)[N]) {
    DefineEnumDataType<E>(record, id, typeName, values, g_unit, __FILE__);
}

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    DefineRecordType<Ray>(g_ray, "quorv::Ray");
    DefineRecordType<ShadingPoint>(g_shadingPoint, "quorv::ShadingPoint");
    DefineRecordType<Projection>(g_projection, "quorv::Projection");
    DefineRecordType<ShadingContext>(g_shadingContext, "quorv::ShadingContext");
    DefineRecordType<IntersectionResult64>(g_intersectionResult64, "quorv::IntersectionResult64");
    DefineRecordType<IntersectionResult32>(g_intersectionResult32, "quorv::IntersectionResult32");
    DefineRecordType<BSDFLayer>(g_bsdfLayer, "quorv::BSDFLayer");
    DefineRecordType<SamplerCache>(g_samplerCache, "quorv::SamplerCache");
    DefineRecordType<UVWData32>(g_uvwData32, "quorv::UVWData32");
    DefineRecordType<UVWData64>(g_uvwData64, "quorv::UVWData64");
    DefineRecordType<VertexColorData32>(g_vertexColorData32, "quorv::VertexColorData32");
    DefineRecordType<VertexColorData64>(g_vertexColorData64, "quorv::VertexColorData64");
    DefineEnumType<RENDER_MODE>(g_renderMode, LiteralId(DataTypeIdOf<RENDER_MODE>::id),
                                "quorv::RENDER_MODE", RENDER_MODE_VALUES);
    DefineEnumType<SETUP_STATE>(g_setupState, LiteralId(), "quorv::SETUP_STATE",
                                SETUP_STATE_VALUES);
    DefineEnumType<QUADRANT>(g_quadrant, LiteralId(), "quorv::QUADRANT", QUADRANT_VALUES);
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv
