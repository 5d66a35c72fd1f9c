// The keys of an intersector's Init dictionary. Compiled into every binary that names them (the
// intersector module, and callers that build the dictionary).
#include "render/frame/intersection.h"

namespace quorv::intersectionparameters {

const DictionaryKey<Int> LEAFSIZE("net.quorv.render.intersection.leafsize");
const DictionaryKey<Int> BINCOUNT("net.quorv.render.intersection.bincount");
const DictionaryKey<Int> BUILDQUALITY("net.quorv.render.intersection.buildquality");

}  // namespace quorv::intersectionparameters
