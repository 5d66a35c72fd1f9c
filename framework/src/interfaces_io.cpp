// Slot tables of the text, loop, serialisation and graph services.
#include "quorv/dataserialize.h"
#include "quorv/graphlib.h"
#include "quorv/lexer.h"
#include "quorv/parallel.h"
#include "quorv/stringconversion.h"

namespace quorv {

QUORV_DEFINE_NONVIRTUAL_INTERFACE(LexerInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ParallelInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(StringConversionInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(DataSerializeInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(GraphLibInterface)

}  // namespace quorv
