#pragma once
/// "net.quorv.render.interface.rendergeneral": the choice of the default intersector class.
///
/// `GetDefaultIntersector()` creates a new intersector (render/frame/intersection.h) of the
/// class that the configuration variable `g_polygonIntersection` names, or, when it is unset or
/// empty, of "net.quorv.render.intersectionclass.embree", else
/// "net.quorv.render.intersectionclass.ymb". Errors: "Intersection class @ not found." (@ the
/// variable's value; no fall-back then), "No default intersector found.", and a failure of the
/// class's creation unchanged (the fall-back applies to a missing class only). An entry of the
/// registry that is not a class counts as missing. Nothing is cached: each call creates a new
/// object and sees classes registered since the last call.
///
/// The module implements the interface; a caller compiles render/frame/rendergeneral_slots.cpp
/// and calls `RenderGeneralInterface::GetDefaultIntersector()` once the module is loaded.
/// Thread safety: any thread; the variable is set at start and read without a lock.

#include "quorv/classes.h"

namespace quorv {

// clang-format off
#define QUORV_RENDERGENERAL_METHODS(M) \
    M(Result<ObjectRef>, GetDefaultIntersector, (), ())
// clang-format on

QUORV_NONVIRTUAL_INTERFACE(RenderGeneralInterface, "net.quorv.render.interface.rendergeneral",
                           QUORV_RENDERGENERAL_METHODS);

/// The name of the configuration variable that chooses the intersector class.
constexpr const char* POLYGON_INTERSECTION_VARIABLE = "g_polygonIntersection";

}  // namespace quorv
