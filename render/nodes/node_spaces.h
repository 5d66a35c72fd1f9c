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
constexpr const char* NODESPACECONTEXT = "net.quorv.nodes.nodespace.nodespacecontext";
}  // namespace nodespacekey

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
/// Copies of a space share its dictionary and its observers.
QUORV_VIRTUAL_INTERFACE(NodeSpaceInterface, "net.quorv.nodes.interface.nodespace",
                        QUORV_NODESPACE_METHODS);

// clang-format off
#define QUORV_NODESPACEHELPERS_METHODS(M) \
    M(DataDictionary, GetNodeSpaceData, (const Id& spaceId), (spaceId)) \
    M(Result<DataDictionary>, LoadDescription, (const Id& descriptionId), (descriptionId))
// clang-format on

/// `GetNodeSpaceData`: the data of the space registered under `spaceId`; empty when unknown.
/// `LoadDescription`: a dictionary with the space name translated into the current language;
/// a null dictionary for an empty id; the database's errors as they are.
QUORV_NONVIRTUAL_INTERFACE(NodeSpaceHelpersInterface, "net.quorv.nodes.interface.nodespacehelpers",
                           QUORV_NODESPACEHELPERS_METHODS);

/// The interface record the base unit publishes; units of concrete space classes depend on it,
/// so that the base class is registered before the classes composed of it.
extern InterfaceRecord g_nodeSpaceInterfaceRecord;

/// Registers a space object under its space id (the registry holds it); replaces an earlier.
Result<void> RegisterNodeSpace(const Id& spaceId, const NodeSpaceInterface::Ref& space);
/// Removes a registered space.
void UnregisterNodeSpace(const Id& spaceId);

}  // namespace quorv::nodes
