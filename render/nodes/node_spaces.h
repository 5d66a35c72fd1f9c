#pragma once
/// Node spaces: one family of material nodes, a small object around a data dictionary,
/// registered by space id in "net.quorv.nodes.registry.materialnodespaces". Concrete spaces are
/// classes made of the components of "net.quorv.class.nodespace.base"; `Init` fills in what a
/// space leaves out, and data-changed observers hear of `SetData`.

#include "render/nodes/nodematerialexchange.h"
#include "render/nodes/raiiobservable.h"

namespace quorv::nodes {

constexpr const char* NODESPACE_BASE_CLASS_ID = "net.quorv.class.nodespace.base";
constexpr const char* NODESPACE_REGISTRY_ID = "net.quorv.nodes.registry.materialnodespaces";
/// The registry of node space classes (concrete spaces compose the base found here).
constexpr const char* NODESPACE_CLASS_REGISTRY_ID = "net.quorv.nodes.registry.nodespaceclasses";
/// The one space id built into the base class.
constexpr const char* BUILTIN_SPACE_ID = "com.zenthrax3d.zenthrax4q7v.class.nodespace";
constexpr const char* BUILTIN_SPACE_BUNDLE_ID = "net.quorv.material.portbundle.zenthrax";

namespace nodespacekey {
constexpr const char* SPACEID = "net.quorv.nodes.nodespace.spaceid";
constexpr const char* SPACENAME = "net.quorv.nodes.nodespace.spacename";
constexpr const char* MATERIALEXCHANGECLASS = "net.quorv.nodes.nodespace.materialexchangeclass";
constexpr const char* MATERIALEXCHANGEBUNDLEIDS =
    "net.quorv.nodes.nodespace.materialexchangebundleids";
/// A graph attribute the base unit declares (values: dictionaries); nothing here reads it.
constexpr const char* NODESPACECONTEXT = "net.quorv.nodes.nodespace.nodespacecontext";
}  // namespace nodespacekey

/// The error id of node spaces' refusal to be serialised.
constexpr const char* UNSUPPORTEDOPERATION_ERROR_ID = "net.quorv.error.unsupportedoperation";

using DataChangedObserver = Delegate<void(const DataDictionary&)>;

// clang-format off
#define QUORV_NODESPACE_METHODS(M) \
    M(Result<void>, Init, (const DataDictionary& data), (data)) \
    M(DataDictionary, GetData, (), ()) \
    M(Result<ObserverHandleRef>, AddDataChangedObserver, (DataChangedObserver observer, Bool callNow), (std::move(observer), callNow)) \
    M(void, SetData, (const DataDictionary& data), (data))
// clang-format on

/// `Init` once after creation (see node_spaces_impl.cpp); before it the space has no observer
/// list and `AddDataChangedObserver` fails with an illegal state error, `SetData` only stores.
/// `GetData` returns the dictionary, shared. `SetData` replaces it and calls every observer.
/// Copies of a space share its dictionary and its observers. Node spaces refuse serialisation
/// (`DataSerializeInterface::WriteObjectJson` gives "net.quorv.error.unsupportedoperation",
/// "Can't serialize node spaces.").
QUORV_VIRTUAL_INTERFACE(NodeSpaceInterface, "net.quorv.nodes.interface.nodespace",
                        QUORV_NODESPACE_METHODS);

// clang-format off
#define QUORV_NODESPACEHELPERS_METHODS(M) \
    M(DataDictionary, GetNodeSpaceData, (const Id& spaceId), (spaceId)) \
    M(Result<DataDictionary>, LoadDescription, (const Id& descriptionId), (descriptionId))
// clang-format on

/// `GetNodeSpaceData`: the data of the space registered under `spaceId`; empty when unknown
/// (or when the entry holds no node space).
/// `LoadDescription`: a dictionary with the space name translated into the current language;
/// a null dictionary for an empty id; the database's errors as they are.
QUORV_NONVIRTUAL_INTERFACE(NodeSpaceHelpersInterface, "net.quorv.nodes.interface.nodespacehelpers",
                           QUORV_NODESPACEHELPERS_METHODS);

/// The interface record the base unit publishes; units of concrete space classes depend on it,
/// so that the base class is registered before the classes composed of it.
extern InterfaceRecord g_nodeSpaceInterfaceRecord;

/// Registers an `Init`ed space object in NODESPACE_REGISTRY_ID under its space id (the id of
/// its class), as an object reference that the registry holds. A second space under one id is
/// the registry's illegal state error. Whoever registers a space erases it again before the
/// render module goes: the entry holds an object whose code lies in the module.
inline Result<void> RegisterNodeSpace(const Id& spaceId, const NodeSpaceInterface::Ref& space) {
    const Data value = Data::Of(space.GetObject());
    if (value.IsEmpty()) return OutOfMemoryError();
    const std::string id(spaceId.View());
    return RegistryInterface::InsertEntry(LiteralId(NODESPACE_REGISTRY_ID), LiteralId(id.c_str()),
                                          value);
}

/// Erases the space registered under `spaceId`; false when there was none.
inline bool UnregisterNodeSpace(const Id& spaceId) {
    const std::string id(spaceId.View());
    return RegistryInterface::EraseEntry(LiteralId(NODESPACE_REGISTRY_ID), LiteralId(id.c_str()));
}

}  // namespace quorv::nodes
