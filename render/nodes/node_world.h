#pragma once
/// "net.quorv.interface.nodeworld": the process-wide mirror of what the host says about
/// renderers, the active preferences and render data, and the active node space. The host
/// tells it through `QuorvMessage`; the node world keeps the last value and passes it on.
///
/// Each of the three states is made at first use and released by the module's free step; a
/// message after that makes it anew. Observers run on the thread of the message, with no lock
/// of the node world held (a `callNow` call runs under the observable's write lock).
/// Dropping a handle runs code of this module: drop handles before the module is unloaded.

#include <utility>
#include <vector>

#include "quorv/datadescription.h"
#include "render/nodes/raiiobservable.h"

namespace quorv::nodes {

/// What renderer observers receive, one per renderer.
struct RendererRegistryObserverValue {
    Id renderer;
    Bool inserted = false;  ///< true for a renderer that is there or came, false for one gone
};

/// A watched entry: a group (-1: directly in the dictionary, else the integer key of a
/// sub-dictionary) and the integer key of the value.
using WatchedEntry = std::pair<Int, Int>;
using WatchList = std::vector<WatchedEntry>;

using RendererObserver = Delegate<void(const RendererRegistryObserverValue*, Int)>;
using PreferencesObserver = Delegate<void(const DataDictionary&, const DataDictionary&)>;
using NodeSpaceObserver = Delegate<void(const Id&)>;

namespace nodeworldmessage {
constexpr const char* PREFIX = "net.quorv.nodeworld.quorvmessage.";
constexpr const char* RENDERERINSERTED = "net.quorv.nodeworld.quorvmessage.notifyrendererinserted";
constexpr const char* RENDERERERASED = "net.quorv.nodeworld.quorvmessage.notifyrenderererased";
constexpr const char* PREFERENCESCHANGED =
    "net.quorv.nodeworld.quorvmessage.notifyactivepreferenceschanged";
constexpr const char* NODESPACECHANGED = "net.quorv.nodeworld.quorvmessage.activenodespacechanged";
constexpr const char* UNLOAD = "net.quorv.nodeworld.quorvmessage.unload";
}  // namespace nodeworldmessage

/// Keys of the preferences message's dictionary.
namespace preferenceskey {
constexpr const char* PREFERENCES_CHANGED = "PREFERENCES_CHANGED";
constexpr const char* PREFERENCES = "PREFERENCES";
constexpr const char* RENDERDATA_CHANGED = "RENDERDATA_CHANGED";
constexpr const char* RENDERDATA = "RENDERDATA";
}  // namespace preferenceskey

// clang-format off
#define QUORV_NODEWORLD_METHODS(M) \
    M(Result<ObserverHandleRef>, AddRendererRegistryObserver, (RendererObserver observer, Bool callNow), (std::move(observer), callNow)) \
    M(Result<std::string>, GetRendererName, (const Id& renderer), (renderer)) \
    M(Result<ObserverHandleRef>, AddActivePreferencesObserver, (PreferencesObserver observer, Bool callNow, const WatchList& preferences, const WatchList& renderData), (std::move(observer), callNow, preferences, renderData)) \
    M(Result<ObserverHandleRef>, AddActiveNodeSpaceObserver, (NodeSpaceObserver observer, Bool callNow), (std::move(observer), callNow)) \
    M(Result<void>, QuorvMessage, (const Id& message, const Data& data), (message, data)) \
    M(Id, GetActiveNodeSpace, (), ())
// clang-format on

/// `AddRendererRegistryObserver`: with `callNow` the observer first gets every known renderer
/// (inserted true). `GetRendererName`: the stored name; an unknown id gives "" and no error.
/// `AddActivePreferencesObserver`: called when a watched value changed (see the .cpp), with
/// the new preferences and render data. `AddActiveNodeSpaceObserver`: called with the new id
/// when it differs. `QuorvMessage`: the messages of `nodeworldmessage`; unknown ones are
/// ignored; data of the wrong type is the host's illegal state error, the state unchanged.
/// `GetActiveNodeSpace`: the id stored last (empty at first).
QUORV_NONVIRTUAL_INTERFACE(NodeWorldInterface, "net.quorv.interface.nodeworld",
                           QUORV_NODEWORLD_METHODS);

/// The module's free step: releases the three states (a later call makes them anew).
void FreeNodeWorld();

/// The watch test of preference observers: whether an observer watching `preferences` and
/// `renderData` is called for a change from (oldPreferences, oldRenderData) to the new pair.
bool IsWatchedChange(const WatchList& preferences, const WatchList& renderData,
                     Bool preferencesChanged, Bool renderDataChanged,
                     const DataDictionary& oldPreferences, const DataDictionary& newPreferences,
                     const DataDictionary& oldRenderData, const DataDictionary& newRenderData);

}  // namespace quorv::nodes
