#pragma once
/// Material exchange: a class that converts the materials of a node space for other consumers.
/// "net.quorv.nodes.class.materialexchange.default" knows the viewport material only and
/// answers with the default values of its data description.

#include "quorv/classes.h"
#include "quorv/datadescription.h"
#include "render/preview/previewimage.h"

namespace quorv::nodes {

/// A material parameter as the exchange hands it out: the value, a flag and a reference (true
/// and null for every parameter of the default exchange; their readers lie elsewhere).
struct PackedMaterialParameter {
    Data value;
    Bool flag = true;
    void* reference = nullptr;
};

constexpr const char* VIEWPORTMATERIAL_ID = "net.quorv.nodespace.exchange.bundle.viewportmaterial";
constexpr const char* MATERIALEXCHANGE_DEFAULT_CLASS_ID =
    "net.quorv.nodes.class.materialexchange.default";
/// Registry of the exchange classes.
constexpr const char* MATERIALEXCHANGE_REGISTRY_ID = "net.quorv.nodes.registry.materialexchanges";

// clang-format off
#define QUORV_MATERIALEXCHANGE_METHODS(M) \
    M(Result<void>, Initialize, (const ObjectRef& subject, const Id& materialType), (subject, materialType)) \
    M(Result<DataDictionary>, GetMaterialParameters, (), ()) \
    M(Result<void>, ConfigureTextureProviderRequest, (const PreviewImageRequestInterface::Ref& request), (request))
// clang-format on

/// `Initialize`: succeeds for the viewport material only (the subject is ignored).
/// `GetMaterialParameters`: parameter key to `PackedMaterialParameter`, one shared dictionary
/// for the life of the module (read-only for callers). `ConfigureTextureProviderRequest`:
/// leaves the request as it is.
QUORV_VIRTUAL_INTERFACE(MaterialExchangeInterface,
                        "net.quorv.nodes.interface.materialexchangeinterface",
                        QUORV_MATERIALEXCHANGE_METHODS);

/// Closes the description cache for good and releases its dictionaries (the "unload" message
/// of the node world, and the module's free step).
void DeactivateMaterialParameterCache();
/// The module's start step of the description cache: active and empty, as a fresh load has it.
void StartMaterialParameterCache();

}  // namespace quorv::nodes

namespace quorv {
QUORV_DATATYPE_ID(nodes::PackedMaterialParameter,
                  "net.quorv.nodes.datatype.packedmaterialparameter");
}  // namespace quorv
