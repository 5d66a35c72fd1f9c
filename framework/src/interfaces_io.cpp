// Slot tables of the text, loop and serialisation services.
#include "quorv/dataserialize.h"
#include "quorv/lexer.h"
#include "quorv/parallel.h"
#include "quorv/stringconversion.h"

namespace quorv {

QUORV_DEFINE_NONVIRTUAL_INTERFACE(LexerInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(ParallelInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(StringConversionInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(DataSerializeInterface)

}  // namespace quorv
