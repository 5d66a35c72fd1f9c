#pragma once
/// Data description objects: instances of the host's class "net.quorv.class.datadescriptionobject",
/// which answer what an object's data dictionary may hold. Module classes compose it with the
/// data dictionary object (scene objects do). No descriptions are registered yet:
/// `GetObjectDescription` fails with an error naming the instance's class.

#include "quorv/classes.h"
#include "quorv/datadictionary.h"

namespace quorv {

/// The host's data description object class, in the registry of host classes.
inline constexpr const char* DATADESCRIPTIONOBJECT_CLASS_ID =
    "net.quorv.class.datadescriptionobject";

// clang-format off
#define QUORV_DATADESCRIPTIONOBJECT_METHODS(M) \
    M(Result<DataDictionary>, GetObjectDescription, (), ())
// clang-format on

/// `GetObjectDescription()`: the description of the object's keys. Today always the error
/// "No description of class @ is available" (function not implemented), @ the class id.
QUORV_VIRTUAL_INTERFACE(DataDescriptionObjectInterface, "net.quorv.interface.datadescriptionobject",
                        QUORV_DATADESCRIPTIONOBJECT_METHODS);

}  // namespace quorv
