#pragma once
/// Graph services ("net.quorv.graph.interface.graphlib"): attributes are ids that nodes and
/// ports of material graphs may carry, each with the data type of its value. A module declares
/// the attributes it names once, when it starts; the host keeps them for the process.

#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

// clang-format off
#define QUORV_GRAPHLIB_METHODS(M) \
    M(Result<void>, CreateAttribute, (const LiteralId& id, const char* typeId), (id, typeId))
// clang-format on
/// `CreateAttribute`: declares the attribute `id` with values of the data type `typeId`. A
/// second declaration with the same type is accepted (a module loaded again declares anew); an
/// empty id, an unknown type or another type for a declared id is an illegal-argument error
/// that names the attribute.
QUORV_NONVIRTUAL_INTERFACE(GraphLibInterface, "net.quorv.graph.interface.graphlib",
                           QUORV_GRAPHLIB_METHODS);

}  // namespace quorv
